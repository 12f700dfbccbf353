// A signed 32-bit counter for reference counts and sequence numbers, shared between threads or used in one.
#pragma once

#include <atomic>

#include "talvo/base/ensure_single_thread.h"
#include "talvo/base/export.h"
#include "talvo/base/mutex.h"

// MutexType is CCmMutexThread (safe in any thread) or CCmMutexNullSingleThread (one thread, asserted). Increments and
// assignments with an operand return the new value.
template <class MutexType>
class CCmAtomicOperationT;

// Safe in any thread.
template <>
class CCmAtomicOperationT<CCmMutexThread> {
public:
    // aValue: the value at first.
    explicit CCmAtomicOperationT(long aValue = 0) : m_lValue(static_cast<int32_t>(aValue)) {}
    CCmAtomicOperationT(const CCmAtomicOperationT& aRight) : m_lValue(aRight.GetValue()) {}

    // The current value. An assignment replaces it.
    int32_t GetValue() const { return m_lValue.load(); }
    CCmAtomicOperationT& operator=(long aValue) {
        m_lValue = static_cast<int32_t>(aValue);
        return *this;
    }
    CCmAtomicOperationT& operator=(const CCmAtomicOperationT& aRight) { return *this = aRight.GetValue(); }

    // The new value; with the operator behind the counter, the old one.
    int32_t operator++() { return ++m_lValue; }
    int32_t operator++(int) { return m_lValue++; }
    int32_t operator--() { return --m_lValue; }
    int32_t operator--(int) { return m_lValue--; }
    int32_t operator+=(long aValue) { return m_lValue += static_cast<int32_t>(aValue); }
    int32_t operator-=(long aValue) { return m_lValue -= static_cast<int32_t>(aValue); }

private:
    std::atomic<int32_t> m_lValue;
};

// For one thread, which each operation asserts.
template <>
class CCmAtomicOperationT<CCmMutexNullSingleThread> {
public:
    // aValue: the value at first.
    explicit CCmAtomicOperationT(long aValue = 0) : m_lValue(static_cast<int32_t>(aValue)) {}
    CCmAtomicOperationT(const CCmAtomicOperationT& aRight) : m_lValue(aRight.GetValue()) {}

    // The current value. An assignment replaces it.
    int32_t GetValue() const { return Checked(); }
    CCmAtomicOperationT& operator=(long aValue) {
        Checked() = static_cast<int32_t>(aValue);
        return *this;
    }
    CCmAtomicOperationT& operator=(const CCmAtomicOperationT& aRight) { return *this = aRight.GetValue(); }

    // The new value; with the operator behind the counter, the old one.
    int32_t operator++() { return ++Checked(); }
    int32_t operator++(int) { return Checked()++; }
    int32_t operator--() { return --Checked(); }
    int32_t operator--(int) { return Checked()--; }
    int32_t operator+=(long aValue) { return Checked() += static_cast<int32_t>(aValue); }
    int32_t operator-=(long aValue) { return Checked() -= static_cast<int32_t>(aValue); }

private:
    int32_t& Checked() {
        m_Est.EnsureSingleThread();
        return m_lValue;
    }
    int32_t Checked() const {
        m_Est.EnsureSingleThread();
        return m_lValue;
    }

    CCmEnsureSingleThread m_Est;
    int32_t m_lValue;
};

// Comparisons of the current value with a number.
template <class MutexType>
bool operator==(const CCmAtomicOperationT<MutexType>& a, long b) {
    return a.GetValue() == b;
}
template <class MutexType>
bool operator<(const CCmAtomicOperationT<MutexType>& a, long b) {
    return a.GetValue() < b;
}
template <class MutexType>
bool operator<=(const CCmAtomicOperationT<MutexType>& a, long b) {
    return a.GetValue() <= b;
}
template <class MutexType>
bool operator>(const CCmAtomicOperationT<MutexType>& a, long b) {
    return a.GetValue() > b;
}
template <class MutexType>
bool operator>=(const CCmAtomicOperationT<MutexType>& a, long b) {
    return a.GetValue() >= b;
}

// A table of four routines over a plain 32-bit value: unlocked on a machine with exactly one processor, locked otherwise. The
// counters above do not use it. Increment and decrement return the new value, exchange and exchange-add the old one.
class TALVO_API CCmAtomicFunctions {
public:
    // The table.
    static int32_t (*increment_fn_)(volatile int32_t*);
    static int32_t (*decrement_fn_)(volatile int32_t*);
    static int32_t (*exchange_fn_)(volatile int32_t*, int32_t);
    static int32_t (*exchange_add_fn_)(volatile int32_t*, int32_t);

    // Fills the table for this machine. A second call changes nothing.
    static void init_functions();

    // The routines, unlocked and locked.
    static int32_t single_cpu_increment(volatile int32_t* aValue);
    static int32_t single_cpu_decrement(volatile int32_t* aValue);
    static int32_t single_cpu_exchange(volatile int32_t* aValue, int32_t aNew);
    static int32_t single_cpu_exchange_add(volatile int32_t* aValue, int32_t aAdd);
    static int32_t multi_cpu_increment(volatile int32_t* aValue);
    static int32_t multi_cpu_decrement(volatile int32_t* aValue);
    static int32_t multi_cpu_exchange(volatile int32_t* aValue, int32_t aNew);
    static int32_t multi_cpu_exchange_add(volatile int32_t* aValue, int32_t aAdd);
};
