#include "tools/memory.h"

#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <new>
#include <string_view>

#include "tools/application.h"

namespace tool {

namespace {

// The library calls std::terminate, too, when an exception leaves a callback.
[[noreturn]] void EndInWords() {
    try {
        if (std::current_exception())
            throw;
    } catch (const std::bad_alloc&) {
        ComplainOfMemory();
        _exit(EXIT_FAILED);
    } catch (...) {
    }
    std::abort();
}

}  // namespace

void EndInWordsWithoutMemory() { std::set_terminate(EndInWords); }

void ComplainOfMemory() {
    constexpr std::string_view TEXT = "talvo: out of memory\n";
    [[maybe_unused]] const ssize_t lWritten = write(STDERR_FILENO, TEXT.data(), TEXT.size());
}

void RequireMemory(CmResult aResult) {
    if (aResult == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
}

}  // namespace tool
