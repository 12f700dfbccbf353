// Whole simulations: clients and a server that do what they like, and afterwards the account.
#pragma once

#include "tests/sim/sim_user.h"

struct CSimResult {
    std::vector<std::string> m_Failures;
    uint64_t m_ullDigest;
    DWORD m_dwMessages;
    const char* m_szKind;
};

// A connector and an acceptor for connections of this kind, over simulated ones.
CCmRefPtrT<ICmConnector> MakeSimConnector(CSimNetwork& aNetwork, const CSimKind& aKind);
CCmRefPtrT<ICmAcceptor> MakeSimAcceptor(CSimNetwork& aNetwork, const CSimKind& aKind);

extern const CSimKind SIM_LENGTH, SIM_PACKAGE, SIM_PACKAGE_KEEPALIVE, SIM_NO_PARTIAL;
extern const CSimKind SIM_PACKAGE_UDP, SIM_PACKAGE_KEEPALIVE_UDP, SIM_NO_PARTIAL_UDP;

// Everything follows from the seed. aVerbose: prints what happens.
CSimResult RunSeed(uint64_t aSeed, BOOL aVerbose = FALSE);
