// Seeds for hashes whose input comes from peers.
#pragma once

#include <cstdint>

#include "talvo/base/export.h"

namespace talvo {

// 64 bits that cannot be guessed outside the process. Does not wait and does not fail: if the system has no random numbers,
// they come from the clock and the addresses of the process. Any thread.
TALVO_API uint64_t random_seed();

}  // namespace talvo
