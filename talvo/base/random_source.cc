#include "talvo/base/random_source.h"

#include <sys/random.h>

#include "talvo/base/random_seed.h"

namespace {

CCmRandomSource::CFill s_pFill = nullptr;
void* s_pArg = nullptr;

}  // namespace

BOOL CCmRandomSource::Fill(void* aBytes, size_t aCount) {
    if (s_pFill) {
        s_pFill(s_pArg, aBytes, aCount);
        return TRUE;
    }
    return getrandom(aBytes, aCount, GRND_NONBLOCK) == static_cast<ssize_t>(aCount);
}

uint64_t CCmRandomSource::LessThan(uint64_t aBound) {
    uint64_t ullNumber = 0;
    if (!Fill(&ullNumber, sizeof ullNumber))
        ullNumber = talvo::random_seed();
    return ullNumber % aBound;
}

void CCmRandomSource::Replace(CFill aFill, void* aArg) {
    s_pFill = aFill;
    s_pArg = aArg;
}
