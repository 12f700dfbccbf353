// The parsed command line.
#pragma once

#include <string>
#include <vector>

#include "tools/endpoint.h"
#include "tools/flaky_plan.h"
#include "tools/get_options.h"
#include "tools/proxy_options.h"
#include "tools/serve_options.h"
#include "tools/tls_options.h"
#include "tools/transfer_options.h"

namespace tool {

struct Arguments {
    std::string m_strHelpOn;               // help: a command, or ""
    std::string m_strHelpFormat = "text";  // help

    int (*m_pRun)(const Arguments&) = nullptr;  // of the subcommand

    bool m_bJson = false;
    bool m_bQuiet = false;
    int m_nVerbose = 0;              // 1: details; 2: also the trace, on stderr
    std::string m_strConfiguration;  // --config, or ""
    std::string m_strEndpoint;       // send, tls, and get with --connect-to: as given
    std::string m_strHost;           // servers: --host as given
    int m_nPort = NO_PORT;           // servers: --port
    CCmInetAddr m_Addr;              // from these; get without --connect-to: s_InetAddrAny
    std::string m_strBind;           // clients: --bind as given, or ""
    CCmInetAddr m_AddrLocal;         // from it

    std::string m_strDirectory;           // recv, serve
    bool m_bForce = false;                // recv
    bool m_bOnce = false;                 // recv
    std::vector<std::string> m_vecFiles;  // send: files, folders, and "-" for stdin
    std::string m_strName = "stdin";      // send: of stdin at the receiver
    bool m_bSecret = false;               // recv, send
    std::string m_strSecretFile;          // recv, send
    std::string m_strSecret;              // from these; "": none
    std::vector<std::string> m_vecNames;  // to look up

    GetOptions m_Get;
    TransferOptions m_Transfer;    // get, send
    DWORD m_dwSilenceMs = 300000;  // recv, send: of the other end
    ServeOptions m_Serve;

    std::string m_strType;                             // as given, or ""
    bool m_bUdp = false;                               // echo, ping
    DWORD m_dwType = CCmConnectionManager::CTYPE_TCP;  // from these two and --tls

    TlsOptions m_Tls;
    CCmRefPtrT<CCmSslContext> m_pContext;   // from these; null: none, or the default one of clients
    std::string m_strAlpn = "h2,http/1.1";  // tls

    std::string m_strListen;   // flaky: as given
    CCmInetAddr m_AddrTarget;  // flaky
    FlakyPlan m_Flaky;

    std::string m_strPolicy = "disconnect";             // publish
    ECmForwardPolicy m_Policy = CM_FORWARD_DISCONNECT;  // publish, from m_strPolicy
    DWORD m_dwKeyField = 0;                             // publish; 0: lines have no keys
    std::string m_strFile;                              // publish; "": stdin
    DWORD m_dwRate = 0;                                 // publish; 0: no limit
    std::string m_strJoin = "next";                     // subscribe

    ProxyOptions m_Proxy;  // get, ping, send

    std::vector<std::string> m_vecUrls;  // proxy
    bool m_bSettings = false;            // proxy: --settings, or no URL is given
    std::string m_strScript;             // proxy: --script as a URL, or ""
    std::string m_strAt;                 // proxy: --at as given
    int64_t m_llAtUsec = -1;             // proxy: from it, in microseconds since 1970; -1: the present

    std::vector<std::string> m_vecEndpoints;  // ping: as given
    bool m_bRace = false;                     // ping
    std::vector<CCmInetAddr> m_vecRacers;     // ping with --race: their addresses, of which m_Addr is one

    std::string m_strTarget;        // bench: an endpoint or a URL, or "" with --self
    std::string m_strRequest;       // bench: of an http URL, from it
    std::string m_strRate = "max";  // bench: as given
    std::string m_strPlot;          // bench: a file, or ""
    bool m_bSelf = false;           // bench
    bool m_bOneWay = false;         // bench
    bool m_bDiscard = false;        // echo
    DWORD m_dwConnections = 1;      // bench
    DWORD m_dwSeconds = 10;         // bench

    DWORD m_dwCount = 10;         // ping
    DWORD m_dwIntervalMs = 1000;  // ping
    DWORD m_dwTimeoutMs = 5000;   // ping
    DWORD m_dwSize = 0;           // ping, bench: bytes of a message; 0 until CheckSize: not given
};

// aArguments, aStatus (out). false: exit with aStatus, after the output of --help, of --version, or of one line about an error.
bool ParseArguments(int aArgc, char** aArgv, Arguments& aArguments, int& aStatus);

}  // namespace tool
