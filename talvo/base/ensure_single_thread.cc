#include "talvo/base/ensure_single_thread.h"

#include <unistd.h>

namespace {

// 0: not read yet. Every post and every assertion reads it; this model of thread-local storage saves a call.
[[gnu::tls_model("initial-exec")]] constinit thread_local DWORD s_dwSelfId = 0;

}  // namespace

DWORD cm_thread_self_id() {
    if (s_dwSelfId == 0)
        s_dwSelfId = static_cast<DWORD>(gettid());
    return s_dwSelfId;
}
