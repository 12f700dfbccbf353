#include "talvo/transport/proxy_credentials.h"

#include <atomic>

namespace {

std::atomic<ICmProxyCredentials*> s_pCredentials{nullptr};  // not owned

}  // namespace

ICmProxyCredentials::~ICmProxyCredentials() = default;

ICmProxyCredentials* ICmProxyCredentials::Get() { return s_pCredentials.load(std::memory_order_acquire); }

void ICmProxyCredentials::Set(ICmProxyCredentials* aCredentials) {
    s_pCredentials.store(aCredentials, std::memory_order_release);
}
