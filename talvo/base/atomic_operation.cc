#include "talvo/base/atomic_operation.h"

#include <unistd.h>

// The locked routines are the default, which is safe until init_functions() has found a single processor.
int32_t (*CCmAtomicFunctions::increment_fn_)(volatile int32_t*) = multi_cpu_increment;
int32_t (*CCmAtomicFunctions::decrement_fn_)(volatile int32_t*) = multi_cpu_decrement;
int32_t (*CCmAtomicFunctions::exchange_fn_)(volatile int32_t*, int32_t) = multi_cpu_exchange;
int32_t (*CCmAtomicFunctions::exchange_add_fn_)(volatile int32_t*, int32_t) = multi_cpu_exchange_add;

void CCmAtomicFunctions::init_functions() {
    if (sysconf(_SC_NPROCESSORS_CONF) != 1)
        return;
    increment_fn_ = single_cpu_increment;
    decrement_fn_ = single_cpu_decrement;
    exchange_fn_ = single_cpu_exchange;
    exchange_add_fn_ = single_cpu_exchange_add;
}

int32_t CCmAtomicFunctions::single_cpu_increment(volatile int32_t* aValue) { return single_cpu_exchange_add(aValue, 1) + 1; }

int32_t CCmAtomicFunctions::single_cpu_decrement(volatile int32_t* aValue) { return single_cpu_exchange_add(aValue, -1) - 1; }

int32_t CCmAtomicFunctions::single_cpu_exchange(volatile int32_t* aValue, int32_t aNew) {
    const int32_t lOld = *aValue;
    *aValue = aNew;
    return lOld;
}

int32_t CCmAtomicFunctions::single_cpu_exchange_add(volatile int32_t* aValue, int32_t aAdd) {
    const int32_t lOld = *aValue;
    *aValue = lOld + aAdd;
    return lOld;
}

int32_t CCmAtomicFunctions::multi_cpu_increment(volatile int32_t* aValue) { return multi_cpu_exchange_add(aValue, 1) + 1; }

int32_t CCmAtomicFunctions::multi_cpu_decrement(volatile int32_t* aValue) { return multi_cpu_exchange_add(aValue, -1) - 1; }

int32_t CCmAtomicFunctions::multi_cpu_exchange(volatile int32_t* aValue, int32_t aNew) {
    return __atomic_exchange_n(aValue, aNew, __ATOMIC_SEQ_CST);
}

int32_t CCmAtomicFunctions::multi_cpu_exchange_add(volatile int32_t* aValue, int32_t aAdd) {
    return __atomic_fetch_add(aValue, aAdd, __ATOMIC_SEQ_CST);
}
