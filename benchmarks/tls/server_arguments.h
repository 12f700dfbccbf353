// The arguments of the servers of TLS.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "benchmarks/support/system.h"

namespace bench {

struct CServerArguments {
    CServerArguments(int aArgc, char** aArgv) {
        if (aArgc != 4) {
            std::fprintf(stderr, "usage: %s PORT CHAIN.pem KEY.pem\n", aArgv[0]);
            std::exit(2);
        }
        m_wPort = PortArgument(2, aArgv);
        m_pChain = aArgv[2];
        m_pKey = aArgv[3];
    }

    uint16_t m_wPort;
    const char* m_pChain;
    const char* m_pKey;
};

}  // namespace bench
