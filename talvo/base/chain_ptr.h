// Ownership of a chain of message blocks.
#pragma once

#include <memory>

#include "talvo/base/message_block.h"

// Frees the blocks of a chain.
struct CCmChainDelete {
    void operator()(CCmMessageBlock* aChain) const { aChain->DestroyChained(); }  // as DestroyChained
};

// Owns a chain of DUPLICATED blocks, as DuplicateTopLevel, DuplicateChained and Disjoint return it. Null: there is no chain.
using CCmChainPtr = std::unique_ptr<CCmMessageBlock, CCmChainDelete>;
