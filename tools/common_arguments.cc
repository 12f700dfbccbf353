#include "tools/common_arguments.h"

#include "tools/configuration.h"
#include "tools/connection_type.h"
#include "tools/console.h"
#include "tools/password.h"
#include "tools/tls_arguments.h"

namespace tool {

namespace {

constexpr size_t SHORTEST_SECRET = 8;
constexpr DWORD DEFAULT_SIZE = 64;
constexpr DWORD MAX_DATAGRAM = 65507;

// Datagrams need IP addresses.
std::string CheckPath(const Arguments& a) {
    return a.m_bUdp && IsPath(a.m_Addr) ? "--udp needs an IP address, not '" + cm_address_text(a.m_Addr) + "'" : "";
}

std::string StartTrace() {
    CCmTraceFileSettings settings;
    settings.m_strPath = "/dev/stderr";
    if (CCmTrace::SetFile(settings) != CM_OK)
        return "-vv: cannot write the trace to stderr";
    CCmTrace::Enable(TRUE);
    return "";
}

}  // namespace

void DeclareCommon(CLI::App& aApp, Arguments& a) {
    AddFlag(aApp, "--json", a.m_bJson, "Print one JSON object a line");
    AddFlag(aApp, "-q,--quiet", a.m_bQuiet, "Print only failures, and the results that the command is for");
    AddCount(aApp, "-v,--verbose", a.m_nVerbose, "Print steps on stderr; twice: also the library's trace");
    Exclude(aApp, "--quiet", "--verbose");
    AddText(aApp, "--config", a.m_strConfiguration, "FILE",
            "Configuration file of the library; default: talvo/talvo.cfg in $XDG_CONFIG_HOME or ~/.config, if it exists");
}

void DeclareType(CLI::App& aApp, Arguments& a) {
    AddChoice(aApp, "--type", a.m_strType, GetTypeNames(), "TYPE",
              "tcp (the default), length, package, package-keepalive, nopartial, reliable or reliable-plain; see talvo --help");
}

void DeclareUdp(CLI::App& aApp, Arguments& a) {
    DeclareType(aApp, a);
    AddFlag(aApp, "--udp", a.m_bUdp, "Datagrams instead of a TCP connection; for package, package-keepalive and nopartial");
    Exclude(aApp, "--udp", "--tls");
}

void DeclareListening(CLI::App& aApp, Arguments& a, const char* aDefault) {
    AddNumber(aApp, "--port", a.m_nPort, 0, 65535, "Port to listen on; 0 lets the system choose");
    AddText(aApp, "--host", a.m_strHost, "ADDRESS",
            std::string("Address to listen on, IPv4, IPv6 or localhost, by default ") + aDefault +
                "; with a port ([::1]:7000), or as unix:PATH or unix:@NAME, instead of --port");
}

void DeclareEndpoint(CLI::App& aApp, Arguments& a, const char* aHelp) {
    AddText(aApp, "ENDPOINT", a.m_strEndpoint, "ENDPOINT", aHelp);
    Require(aApp, "ENDPOINT");
}

void DeclareBind(CLI::App& aApp, Arguments& a) {
    AddText(aApp, "--bind", a.m_strBind, "ADDRESS",
            "Local address to connect from, IPv4 or IPv6, with a port if one is needed");
}

void DeclareSize(CLI::App& aApp, Arguments& a) {
    AddNumber(aApp, "--size", a.m_dwSize, 1, 16 << 20, "Bytes in a message (64)");
}

void DeclareSecret(CLI::App& aApp, Arguments& a, const char* aHelp) {
    AddFlag(aApp, "--secret", a.m_bSecret, aHelp);
    AddText(aApp, "--secret-file", a.m_strSecretFile, "FILE", "As --secret, with the first line of FILE as the secret");
}

std::string CheckCommon(Arguments& a) {
    const std::string strConfiguration = LoadConfiguration(a.m_strConfiguration);
    if (!strConfiguration.empty())
        return strConfiguration;
    if (a.m_bQuiet)
        Console::SetVerbosity(Console::QUIET);
    else if (a.m_nVerbose > 0)
        Console::SetVerbosity(Console::DETAILS);
    return a.m_nVerbose > 1 ? StartTrace() : "";
}

std::string CheckListening(Arguments& a) {
    const std::string strAddress = ParseListening(a.m_strHost, a.m_nPort, a.m_Addr);
    const std::string strPath = strAddress.empty() ? CheckPath(a) : strAddress;
    return strPath.empty() && !a.m_Tls.m_strCertFile.empty() ? MakeServerContext(a.m_Tls, a.m_pContext) : strPath;
}

std::string CheckPeer(Arguments& a, const std::string& aEndpoint) {
    std::string strProblem = ParseEndpoint(aEndpoint, a.m_Addr);
    if (strProblem.empty())
        strProblem = CheckPath(a);
    if (strProblem.empty())
        strProblem = CheckBind(a);
    return strProblem.empty() ? CheckTlsClient(a) : strProblem;
}

std::string CheckBind(Arguments& a) {
    const std::string strProblem = a.m_strBind.empty() ? "" : ParseLocal(a.m_strBind, a.m_AddrLocal);
    return strProblem.empty() ? "" : "--bind: " + strProblem;
}

std::string CheckSize(Arguments& a) {
    a.m_dwSize = a.m_dwSize == 0 ? DEFAULT_SIZE : a.m_dwSize;
    const bool bLong = a.m_dwType == CCmConnectionManager::CTYPE_UDP && a.m_dwSize > MAX_DATAGRAM;
    return bLong ? "--size: a datagram has at most " + std::to_string(MAX_DATAGRAM) + " bytes" : "";
}

std::string CheckSecret(Arguments& a) {
    if (!a.m_bSecret && a.m_strSecretFile.empty())
        return "";
    const std::string strProblem =
        ReadPassword({"--secret", "--secret-file", a.m_strSecretFile, "TALVO_SECRET", "Shared secret: "}, a.m_strSecret);
    if (!strProblem.empty())
        return strProblem;
    const bool bShort = a.m_strSecret.size() < SHORTEST_SECRET;
    return bShort ? "--secret needs at least " + std::to_string(SHORTEST_SECRET) + " bytes, because short ones can be guessed"
                  : "";
}

}  // namespace tool
