// Allocations and system calls that fail on request, for tests of applications that survive a lack of memory or descriptors.
// Link talvo::testing_faults.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "talvo/base/types.h"

// The calls that fail: allocations of the process (malloc and everything above it), or the system calls of the library: those
// of sockets, epoll, eventfd and timerfd.
//
// A program that links talvo::testing_faults has malloc and these calls replaced. It links the shared library, and no
// sanitizer, which replaces the same functions. Built with glibc only.
class CCmFaults {
public:
    // One allocation, all from one on, or one system call.
    enum EKind { ONE_ALLOCATION, ALLOCATIONS_FROM, SYSTEM_CALL };

    // The aNth call from now on fails, and with ALLOCATIONS_FROM all behind it; those of all threads count. aError: which of
    // the errors of the system call, from 0 on; a call that has fewer does not fail.
    static void Arm(EKind aKind, CmDword aNth, int aError = 0);
    static void Disarm();  // no further call fails
    // Whether the call has been reached.
    static CmBool HasFired();

    // Where the first failing call was made. It may be in memory shared with another process.
    struct CPlace {
        static constexpr int MAX_DEPTH = 40;  // entries of a stack
        int m_nDepth;                         // 0: none has failed yet
        const char* m_pCall;                  // its name
        void* m_Stack[MAX_DEPTH];             // return addresses, the innermost first
    };
    static void RecordAt(CPlace* aPlace);  // null: no record
};

// Calls of the calling thread do not fail while one of these is in scope, as in the code of a test; in a CCmFaultyCode in it
// they fail again, as in the calls of the library that the test makes.
class CCmSafeCode {
public:
    CCmSafeCode() : CCmSafeCode(true) {}
    ~CCmSafeCode();
    CCmSafeCode(const CCmSafeCode&) = delete;
    CCmSafeCode& operator=(const CCmSafeCode&) = delete;

protected:
    explicit CCmSafeCode(bool aSafe);

private:
    const bool m_bBefore;
};
// See CCmSafeCode.
class CCmFaultyCode : public CCmSafeCode {
public:
    CCmFaultyCode() : CCmSafeCode(false) {}
};

// A scenario that runs again and again, in safe code.
class ICmFaultScenario {
public:
    // TRUE: it did everything that it wants to do. May throw.
    virtual CmBool Run() = 0;
    // After each run, no fault is armed: empty, or the broken property. Objects that are left, for instance.
    virtual std::string Check() = 0;
    virtual ~ICmFaultScenario() = default;
};

// The outcome of all runs.
struct CCmFaultReport {
    CmDword m_dwCalls = 0;                // the calls that failed in turn
    std::vector<std::string> m_Failures;  // each with the call that failed and the stack
};

// Lets each call of that kind fail in turn, one in each run of a scenario. A run fails when the scenario throws, when Check
// does not return an empty text, when the process ends or takes 30 seconds, or when the next run, without a fault, does not do
// everything. The scenario is made and runs in a child process, of which a new one follows each failure.
CCmFaultReport cm_run_faults(const std::function<std::unique_ptr<ICmFaultScenario>()>& aMake, CCmFaults::EKind aKind,
                             int aError = 0);
