// Whole simulations: clients and a server that do what they like, and afterwards the account.
#pragma once

#include "tests/sim/sim_user.h"

struct CSimResult {
    std::vector<std::string> m_Failures;
    uint64_t m_ullDigest;
    DWORD m_dwMessages;
    const char* m_szKind;
};

extern const CSimKind SIM_KINDS[7];
inline const CSimKind& SIM_PACKAGE_KEEPALIVE = SIM_KINDS[2];

// Everything follows from the seed. aVerbose: prints what happens.
CSimResult RunSeed(uint64_t aSeed, BOOL aVerbose = FALSE);
