#include "talvo/transport/proxy_source.h"

#include <atomic>

namespace {

std::atomic<ICmProxySource*> s_pSource{nullptr};  // not owned

}  // namespace

ICmProxySourceSink::~ICmProxySourceSink() = default;
ICmProxySource::~ICmProxySource() = default;

ICmProxySource* ICmProxySource::Get() { return s_pSource.load(std::memory_order_acquire); }

void ICmProxySource::Set(ICmProxySource* aSource) { s_pSource.store(aSource, std::memory_order_release); }
