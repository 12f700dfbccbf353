// What stands on the command line.
#pragma once

#include <string>
#include <vector>

#include "tools/endpoint.h"
#include "tools/output.h"

namespace tool {

struct Arguments {
    int (*m_pRun)(const Arguments&) = nullptr;  // of the subcommand that was named

    bool m_bJson = false;
    std::string m_strConfiguration;     // --config, or ""
    std::string m_strEndpoint;          // send and ping: HOST:PORT as typed
    Endpoint m_Endpoint{"0.0.0.0", 0};  // to listen on, or to connect to

    std::string m_strDirectory;           // recv, serve
    bool m_bForce = false;                // recv
    bool m_bOnce = false;                 // recv
    std::vector<std::string> m_vecFiles;  // send
    std::vector<std::string> m_vecNames;  // to look up

    std::string m_strUrl;      // get
    std::string m_strOutput;   // get, as typed
    OutputTarget m_Target;     // get; what that comes to
    bool m_bContinue = false;  // get
    std::string m_strUser;     // get: NAME:PASSWORD or ""

    std::string m_strType;                             // as typed, or ""
    bool m_bUdp = false;                               // echo, ping
    DWORD m_dwType = CCmConnectionManager::CTYPE_TCP;  // what these two come to

    DWORD m_dwCount = 10;         // ping
    DWORD m_dwIntervalMs = 1000;  // ping
    DWORD m_dwTimeoutMs = 5000;   // ping
    DWORD m_dwSize = 64;          // ping, bytes
};

// Fills aArguments. false: aStatus is what to exit with, after --help, --version or one line on what is wrong.
bool ParseArguments(int aArgc, char** aArgv, Arguments& aArguments, int& aStatus);

}  // namespace tool
