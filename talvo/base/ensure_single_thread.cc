#include "talvo/base/ensure_single_thread.h"

#include <unistd.h>

DWORD cm_thread_self_id() {
    thread_local const DWORD s_dwId = static_cast<DWORD>(gettid());
    return s_dwId;
}
