#include "talvo/base/name_resolver.h"

#include <atomic>

namespace {

std::atomic<ICmNameResolver*> s_pResolver{nullptr};  // not owned

}  // namespace

ICmNameResolver::~ICmNameResolver() = default;

ICmNameResolver* ICmNameResolver::Get() { return s_pResolver.load(std::memory_order_acquire); }

void ICmNameResolver::Set(ICmNameResolver* aResolver) { s_pResolver.store(aResolver, std::memory_order_release); }
