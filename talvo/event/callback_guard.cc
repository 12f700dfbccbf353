#include "talvo/event/callback_guard.h"

#include <exception>

#include "talvo/base/trace.h"

namespace talvo {

namespace {

[[gnu::tls_model("initial-exec")]] constinit thread_local int t_nDepth = 0;

}  // namespace

CCallbackScope::CCallbackScope() { ++t_nDepth; }
CCallbackScope::~CCallbackScope() { --t_nDepth; }
bool CCallbackScope::IsInside() { return t_nDepth > 0; }

void end_by_exception() noexcept {
    const char* pText = "not a std::exception";
    try {
        throw;
    } catch (const std::exception& exception) {
        pText = exception.what();
    } catch (...) {
    }
    CM_ERROR_TRACE("an exception left a callback, the process ends. what=" << pText);
    CCmTrace::Flush();
    std::terminate();
}

}  // namespace talvo
