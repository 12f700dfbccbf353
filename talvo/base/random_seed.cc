#include "talvo/base/random_seed.h"

#include <sys/random.h>
#include <unistd.h>

#include "talvo/base/clock.h"

namespace talvo {

uint64_t random_seed() {
    uint64_t ullSeed = 0;
    if (getrandom(&ullSeed, sizeof ullSeed, GRND_NONBLOCK) == sizeof ullSeed)
        return ullSeed;
    const auto ullTime = static_cast<uint64_t>(CCmClock::GetWallUsec());
    const auto ullPlace = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&ullSeed));
    return (ullTime ^ ullPlace << 16 ^ static_cast<uint64_t>(getpid()) << 48) * 0x9E3779B97F4A7C15;
}

}  // namespace talvo
