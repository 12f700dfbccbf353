// Allocations and system calls that fail when a test says so.
#pragma once

#include <cstdint>

// What is armed: the process's allocations (malloc and everything above it) or the system calls that the library makes. Calls
// of test code do not count. All threads.
struct CFailures {
    enum EKind { ONE_ALLOCATION, ALLOCATIONS_FROM, SYSTEM_CALL };
    static constexpr int STACK = 40;

    // The aNth call from now on fails, and with ALLOCATIONS_FROM all behind it. aError: which of the errors that the system
    // call can have; a call that has fewer does not fail.
    static void Arm(EKind aKind, uint32_t aNth, int aError = 0);
    static void Disarm();
    // Whether the call has been reached.
    static bool HasFired();
    // Where the first call that failed was made; aDepth is 0 without one. The memory may be shared with a parent process.
    struct CPlace {
        int m_nDepth;
        const char* m_szCall;
        void* m_Stack[STACK];
    };
    static void RecordAt(CPlace* aPlace);
};

// The calling thread runs code of the test while one of these is in scope, and code of the library again in a CLibraryCode.
class CTestCode {
public:
    CTestCode();
    ~CTestCode();

private:
    const bool m_bBefore;
};
class CLibraryCode {
public:
    CLibraryCode();
    ~CLibraryCode();

private:
    const bool m_bBefore;
};
