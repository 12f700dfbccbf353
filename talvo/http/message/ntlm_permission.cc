#include "talvo/http/message/ntlm_permission.h"

#include <atomic>

#include "talvo/base/config.h"

namespace talvo {

namespace {

enum EPermission { CONFIGURED, FORBIDDEN, ALLOWED };

std::atomic<EPermission> s_Permission{CONFIGURED};

}  // namespace

BOOL IsNtlmAllowed() {
    const EPermission permission = s_Permission.load(std::memory_order_relaxed);
    return permission == CONFIGURED ? get_bool_param("HttpProxy", "AllowNtlm", false) : permission == ALLOWED;
}

void AllowNtlm(BOOL aAllow) { s_Permission.store(aAllow ? ALLOWED : FORBIDDEN, std::memory_order_relaxed); }

}  // namespace talvo
