// A thread that runs an Asio context.
#pragma once

#include <asio.hpp>
#include <thread>
#include <utility>

#include "benchmarks/support/system.h"

namespace bench {

class CAsioLoop {
public:
    explicit CAsioLoop(int aCore)
        : m_Thread([this, aCore] {
              PinThisThread(aCore);
              m_Io.run();
          }) {}
    ~CAsioLoop() {
        m_Io.stop();
        m_Thread.join();
    }
    CAsioLoop(const CAsioLoop&) = delete;
    CAsioLoop& operator=(const CAsioLoop&) = delete;

    // Any thread.
    template <class Function>
    void Post(Function&& aFunction) {
        asio::post(m_Io, std::forward<Function>(aFunction));
    }

    asio::io_context& Get() { return m_Io; }

private:
    asio::io_context m_Io{1};  // one thread runs it
    asio::executor_work_guard<asio::io_context::executor_type> m_Work{m_Io.get_executor()};
    std::thread m_Thread;
};

}  // namespace bench
