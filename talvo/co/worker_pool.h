// Threads for work that takes long.
#pragma once

#include <signal.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "talvo/co/combine.h"
#include "talvo/co/far_call.h"

namespace talvo {

namespace detail {

class worker_job : public far_call {
public:
    virtual void work() = 0;  // in a thread of the pool
    void end() { answer(); }
};

}  // namespace detail

// A fixed number of threads that compute or block for coroutines. They are none of the library's: work must not use
// connections. Made after the application, and destroyed in the same thread, which waits for the work that has begun; the rest
// fails with CM_ERROR_NOT_AVAILABLE.
class worker_pool {
public:
    // 0 threads: one for each processor. most_waiting: the calls that may wait beside those for idle threads. Throws
    // std::system_error: the system has no thread; std::bad_alloc.
    explicit worker_pool(unsigned threads = 0, std::size_t most_waiting = 1024) : most_waiting_(most_waiting) {
        if (threads == 0)
            threads = std::max(1u, std::thread::hardware_concurrency());
        sigset_t all, before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);  // signals are for the application
        try {
            while (threads_.size() < threads)
                threads_.emplace_back([this] { run_jobs(); });
        } catch (...) {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            end();
            throw;
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    worker_pool(const worker_pool&) = delete;
    worker_pool& operator=(const worker_pool&) = delete;
    ~worker_pool() { end(); }

    // Calls work in one of the threads. co_await gives its value as a result<T>, of a reference a copy, and rethrows its
    // exception. If the awaiting coroutine is destroyed or a stop is requested (std::errc::operation_canceled), work that waits
    // is skipped; work that has begun continues, so it must own what it uses. CM_ERROR_NOT_AVAILABLE, at once: most_waiting
    // calls wait already.
    // GCC 12 needs a name for work with captures that have destructors; a copy of it is called, or it is moved.
    //
    //    const auto work = [text] { return slow_hash(text); };
    //    const auto hash = co_await pool.run(work);
    template <class F>
    auto run(F&& work) {
        return detail::far_awaiter(new job<std::decay_t<F>>(*this, detail::take_work(std::forward<F>(work))));
    }
    template <class F>
    auto run(F&& work, std::stop_token token) {
        return with_stop(std::move(token), run(std::forward<F>(work)));
    }

private:
    template <class F>
    class job final : public detail::worker_job {
    public:
        using value = detail::far_value_t<std::invoke_result_t<F&>>;

        job(worker_pool& pool, F work) : pool_(pool), work_(std::move(work)) {}

        bool begin() { return pool_.add(*this); }
        void cancel() {}
        detail::as_result_t<value> take() { return outcome_.take(); }
        void work() override {
            if (!is_abandoned())
                outcome_.set([this]() -> decltype(auto) { return (*work_)(); });
            work_.reset();
        }

    private:
        worker_pool& pool_;  // used before the work only
        std::optional<F> work_;
        detail::far_outcome<value> outcome_;
    };

    bool add(detail::worker_job& added) {
        {
            const std::lock_guard lock(mutex_);
            if (jobs_.size() >= most_waiting_ + threads_.size() - busy_)
                return false;
            jobs_.push_back(&added);
            added.add_reference();
        }
        changed_.notify_one();
        return true;
    }

    void run_jobs() {
        for (;;) {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return ended_ || !jobs_.empty(); });
            if (ended_)
                return;
            detail::worker_job* const next = jobs_.front();
            jobs_.pop_front();
            ++busy_;
            lock.unlock();
            next->work();
            lock.lock();
            --busy_;  // before the caller may call again
            lock.unlock();
            next->end();
            next->release();
        }
    }

    void end() {
        {
            const std::lock_guard lock(mutex_);
            ended_ = true;
        }
        changed_.notify_all();
        for (std::thread& each : threads_)
            each.join();
        for (detail::worker_job* const left : jobs_) {
            left->end();
            left->release();
        }
    }

    const std::size_t most_waiting_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<detail::worker_job*> jobs_;  // that wait, each with a reference
    std::size_t busy_ = 0;                  // threads that work
    bool ended_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace talvo
