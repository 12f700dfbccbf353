// The memory of coroutine frames.
#pragma once

#include <cstddef>
#include <new>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TALVO_CO_PLAIN_FRAMES 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TALVO_CO_PLAIN_FRAMES 1
#endif

namespace talvo::detail {

// The kept frames of one thread, in lists by size.
struct frame_cache {
    static constexpr std::size_t STEP = 64;
    static constexpr std::size_t CLASSES = 32;  // frames of up to 2 KiB

    struct piece {
        piece* next;
    };
    piece* free[CLASSES] = {};
    void* newest = nullptr;
    std::size_t kept = 0;  // bytes
    bool watched = false;
    bool closed = false;  // the thread ends: frames that end after this are freed at once
};

// Each thread keeps the frames that end in it, up to 256 KiB, for its next coroutines. They go back to the system at the end of
// the thread. Under a sanitizer every frame is an allocation of its own, so that the sanitizer finds a use after its end.
class frame_store {
public:
    static void* allocate(std::size_t size) { return cache_.newest = find(size); }
    // The frame that the thread has allocated last.
    static void* newest() noexcept { return cache_.newest; }

    static void release(void* memory, [[maybe_unused]] std::size_t size) noexcept {
#ifndef TALVO_CO_PLAIN_FRAMES
        const std::size_t index = (size - 1) / STEP;
        if (index < CLASSES && cache_.kept + (index + 1) * STEP <= MOST_KEPT && !cache_.closed) {
            if (!cache_.watched)
                watch_end();
            cache_.free[index] = new (memory) piece{cache_.free[index]};
            cache_.kept += (index + 1) * STEP;
            return;
        }
#endif
        ::operator delete(memory);
    }

private:
    static void* find(std::size_t size) {
#ifndef TALVO_CO_PLAIN_FRAMES
        const std::size_t index = (size - 1) / STEP;
        if (index < CLASSES) {
            piece*& first = cache_.free[index];
            if (piece* found = first) {
                first = found->next;
                cache_.kept -= (index + 1) * STEP;
                return found;
            }
            return ::operator new((index + 1) * STEP);
        }
#endif
        return ::operator new(size);
    }

    static constexpr std::size_t STEP = frame_cache::STEP;
    static constexpr std::size_t CLASSES = frame_cache::CLASSES;
    static constexpr std::size_t MOST_KEPT = 256 * 1024;
    using piece = frame_cache::piece;

    struct end_watch {
        ~end_watch() {
            cache_.closed = true;
            for (piece*& first : cache_.free) {
                while (piece* next = first) {
                    first = next->next;
                    ::operator delete(next);
                }
            }
        }
    };

    [[gnu::noinline, gnu::cold]] static void watch_end() noexcept {
        static thread_local end_watch watch;
        cache_.watched = true;
    }

    static inline thread_local constinit frame_cache cache_;
};

}  // namespace talvo::detail
