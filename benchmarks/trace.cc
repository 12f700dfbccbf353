// The cost of a trace line whose level is off, relative to the unavoidable load and branch.
#include <atomic>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"
#include "talvo/talvo.h"

namespace {

constexpr int COUNT = 100000000;

std::atomic<DWORD> s_dwMask{0};
int s_Taken = 0;

// Prevents the compiler from moving the load of the mask out of the loop.
inline void Barrier() { asm volatile("" ::: "memory"); }

template <class Function>
double NsPerCall(Function aFunction) {
    const int64_t llStart = bench::NowNs();
    for (int n = 0; n < COUNT; ++n) {
        aFunction(n);
        Barrier();
    }
    return static_cast<double>(bench::NowNs() - llStart) / COUNT;
}

}  // namespace

int main() {
    bench::PinThisThread(0);
    const auto Floor = [](int aNumber) {
        if (s_dwMask.load(std::memory_order_relaxed) & 1u)
            s_Taken += aNumber;
    };
    const auto Traced = [](int aNumber) { CM_TRACE(CM_TRACE_DETAIL, "number " << aNumber); };
    NsPerCall(Floor);
    bench::CReport report;
    report.Add("floor_ns", NsPerCall(Floor));
    report.Add("disabled_ns", NsPerCall(Traced));
    report.Print();
    return s_Taken;
}
