// Seeds for hashes whose input strangers choose.
#pragma once

#include <cstdint>

#include "talvo/base/export.h"

namespace talvo {

// 64 bits that nobody outside the process can guess. Does not wait and does not fail: without the system's random numbers they
// come from the clock and the addresses of the process. Any thread.
TALVO_API uint64_t random_seed();

}  // namespace talvo
