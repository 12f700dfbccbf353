#include "tools/arguments.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <sstream>

#include "tools/application.h"
#include "tools/bench_arguments.h"
#include "tools/commands.h"
#include "tools/common_arguments.h"
#include "tools/connection_type.h"
#include "tools/console.h"
#include "tools/file_arguments.h"
#include "tools/forwarding.h"
#include "tools/get_arguments.h"
#include "tools/help_format.h"
#include "tools/manual.h"
#include "tools/proxy_arguments.h"
#include "tools/text.h"
#include "tools/tls_arguments.h"
#include "tools/url.h"

namespace tool {

namespace {

constexpr const char* FOOTER = R"(Examples:
  talvo recv --port 7070 --out ~/inbox
  talvo recv --host 192.0.2.7:7070 --out /srv/inbox --secret-file ~/.talvo-secret
  talvo send report.pdf photos/ 192.0.2.7:7070 --secret-file ~/.talvo-secret
  tar -cz photos | talvo send - 192.0.2.7:7070 --name photos.tgz --secret-file ~/.talvo-secret
  talvo echo --port 7000
  talvo ping 127.0.0.1:7000 --count 1000 --interval 0
  talvo echo --udp --type package --port 7000
  talvo bench 192.0.2.7:7000 --connections 50 --rate 20000 --seconds 30 --plot latency.svg
  talvo bench http://127.0.0.1:8080/ --connections 16
  talvo bench --self --type package --one-way
  talvo get http://192.0.2.7/photos.tar -o photos.tar
  talvo resolve www.example.com
  talvo serve ~/public --port 8080
  talvo get --proxy http://proxy.example:3128 --proxy-user ann https://www.example.com/photos.tar -o photos.tar
  talvo proxy --settings https://www.example.com/
  talvo ping --race [2001:db8::7]:7000 192.0.2.7:7000
  talvo echo --host unix:/run/user/1000/echo.sock
  talvo get https://www.example.com/photos.tar -o photos.tar
  talvo serve ~/public --port 8443 --cert server.pem --key server.key
  talvo echo --tls --port 7000 --cert server.pem --key server.key
  talvo ping --tls --cacert root.pem localhost:7000
  talvo tls www.example.com:443
  vmstat -n 1 | talvo publish --port 7000
  talvo publish --port 7000 --type length --file prices.txt --rate 100 --policy conflate --key-field 1
  talvo subscribe --type length 192.0.2.7:7000 --join all-keys
  talvo help send
  talvo flaky 127.0.0.1:7001 127.0.0.1:7000 --every 500 --faults reset,stall

An endpoint is a host and a port, with an IPv6 address in brackets, or a Unix socket:
  192.0.2.7:7070  www.example.com:80  [::1]:7000  [fe80::1%eth0]:7000  unix:/run/echo.sock  unix:@abstract-name

Types of connection; both ends need the same, but package and package-keepalive count as the same:
  tcp                a plain stream of bytes
  length             messages, each after its length
  package            the library's own protocol, with a handshake; a client closes it after 120 s of silence
  package-keepalive  package with a keep-alive every 15 s; a server also closes it after 120 s of silence
  nopartial          the library's own protocol without a handshake
  reliable           as package-keepalive, and a connection survives the loss of its transport
  reliable-plain     reliable without the secret that proves who may continue a connection
With package, package-keepalive and nopartial, --udp sends each message in a datagram of its own. With each type, --tls encrypts
a connection over TCP.

Exit status: 0 success, 1 failure, 2 wrong arguments, 128 + N ended by signal N (130 after Ctrl-C). Failures of get: 3 the
name, 4 the connection, 5 TLS, 6 silence, 7 a broken connection, 8 the protocol, 9 a refusal (HTTP status), 10 a file or the
memory here, 11 another version.)";

constexpr size_t MOST_RACERS = 16;
constexpr size_t LONGEST_ALPN = 255;

void DeclareEcho(CLI::App& aApp, Arguments& a) {
    DeclareListening(aApp, a);
    DeclareTlsServer(aApp, a);
    DeclareUdp(aApp, a);
    AddFlag(aApp, "--discard", a.m_bDiscard, "Read only, and send nothing back; for talvo bench --one-way");
}

void DeclarePing(CLI::App& aApp, Arguments& a) {
    DeclareTlsClient(aApp, a);
    DeclareUdp(aApp, a);
    DeclareProxy(aApp, a);
    DeclareBind(aApp, a);
    aApp.get_option("--proxy")->excludes(aApp.get_option("--udp"));
    aApp.add_option("ENDPOINT", a.m_vecEndpoints, "Endpoint of `talvo echo`, see talvo --help; several with --race")
        ->required()
        ->option_text("ENDPOINT...");
    aApp.add_flag("--race", a.m_bRace,
                  "Connect to the endpoints one after another, 250 ms apart, and use the first connection; each endpoint may "
                  "see an attempt")
        ->excludes(aApp.get_option("--proxy"))
        ->excludes(aApp.get_option("--bind"));
    AddNumber(aApp, "--count", a.m_dwCount, 1, 10000000, "Messages to send (10)");
    AddNumber(aApp, "--interval", a.m_dwIntervalMs, 0, 3600000,
              "Milliseconds from an answer to the next message (1000); 0: no pause");
    DeclareSize(aApp, a);
    AddNumber(aApp, "--timeout", a.m_dwTimeoutMs, 1, 3600000, "Milliseconds to wait for the connection and each answer (5000)");
}

// The checks return "" or an error text.

std::string CheckPing(Arguments& a) {
    const std::string strSize = CheckSize(a);
    if (!strSize.empty())
        return strSize;
    const size_t stMost = a.m_bRace ? MOST_RACERS : 1;
    if (a.m_vecEndpoints.size() > stMost)
        return a.m_bRace ? "--race takes " + std::to_string(stMost) + " endpoints at most" : "several endpoints need --race";
    for (const std::string& strEndpoint : a.m_vecEndpoints) {
        const std::string strProblem = CheckPeer(a, strEndpoint);
        if (!strProblem.empty())
            return strProblem;
        if (a.m_bRace)
            a.m_vecRacers.push_back(a.m_Addr);
    }
    return CheckProxy(a);
}

void DeclareTls(CLI::App& aApp, Arguments& a) {
    DeclareEndpoint(aApp, a, "Endpoint of a server, see talvo --help");
    DeclareTrust(aApp, a);
    DeclareServerName(aApp, a);
    DeclareBind(aApp, a);
    aApp.add_option("--alpn", a.m_strAlpn, "Protocols to offer, the preferred one first; default: h2,http/1.1")
        ->option_text("NAME,...");
}

std::string CheckTls(Arguments& a) {
    std::istringstream protocols(a.m_strAlpn + ',');  // getline drops an empty name at the end
    for (std::string strName; std::getline(protocols, strName, ',');) {
        if (strName.empty() || strName.size() > LONGEST_ALPN)
            return "--alpn: the name of a protocol has 1 to " + std::to_string(LONGEST_ALPN) + " bytes";
    }
    a.m_Tls.m_bTls = true;
    a.m_dwType = CM_TRANSPORT_TYPE_TLS;
    return CheckPeer(a, a.m_strEndpoint);
}

void DeclareResolve(CLI::App& aApp, Arguments& a) {
    aApp.add_option("names", a.m_vecNames, "Host names to look up")->required()->option_text("NAME...");
}

std::string CheckResolve(Arguments& a) {
    for (const std::string& strName : a.m_vecNames) {
        if (!IsHost(strName))
            return "'" + strName + "' is neither a host name nor an IP address";
    }
    return "";
}

void DeclareServe(CLI::App& aApp, Arguments& a) {
    DeclareListening(aApp, a);
    DeclareClientTrust(aApp, a);
    aApp.add_option("directory", a.m_strDirectory, "Directory to serve; no request leads out of it")
        ->required()
        ->option_text("DIR");
    ServeOptions& options = a.m_Serve;
    aApp.add_option("--index", options.m_strIndex,
                    "File to send for a directory that has it (index.html); '': always the page with the directory's entries")
        ->option_text("NAME");
    aApp.add_flag("--cors{*}", options.m_strOrigin,
                  "Allow pages of any other origin to use the files, or with --cors=ORIGIN those of one origin");
    aApp.add_option("--access-log", options.m_strAccessLog,
                    "File to append a line to for each answer, - for stdout; SIGHUP opens it again")
        ->option_text("FILE");
    aApp.add_option("--access-log-format", options.m_strAccessLogFormat,
                    "common (the default) or json, which is the default with --json")
        ->check(CLI::IsMember({"common", "json"}))
        ->option_text("FORMAT");
}

std::string CheckServe(Arguments& a) {
    if (a.m_Serve.m_strIndex.find('/') != std::string::npos)
        return "--index needs the name of a file, without a directory";
    if (!a.m_Serve.m_strOrigin.empty() && !IsOrigin(a.m_Serve.m_strOrigin))
        return "--cors: '" + a.m_Serve.m_strOrigin +
               "' is not an origin as browsers send it, such as https://www.example.com or http://localhost:8080";
    struct stat status {};
    if (stat(a.m_strDirectory.c_str(), &status) != 0)
        return "'" + a.m_strDirectory + "': " + SystemError(errno);
    return S_ISDIR(status.st_mode) ? CheckListening(a) : "'" + a.m_strDirectory + "' is not a directory";
}

void DeclareFlaky(CLI::App& aApp, Arguments& a) {
    aApp.add_option("LISTEN", a.m_strListen, "Address to listen on; port 0 lets the system choose")
        ->required()
        ->option_text("ADDRESS:PORT");
    aApp.add_option("TARGET", a.m_strEndpoint, "Endpoint to forward to, see talvo --help")->required()->option_text("ENDPOINT");
    FlakyPlan& plan = a.m_Flaky;
    aApp.add_option(
            "--faults", plan.m_vecFaults,
            "Faults to choose from (close,reset,stall): close ends a connection in order, reset breaks it, stall forwards "
            "nothing for a time, halve drops the data of one direction from then on")
        ->delimiter(',')
        ->check(CLI::IsMember({"close", "reset", "stall", "halve"}))
        ->option_text("NAME,...");
    AddNumber(aApp, "--every", plan.m_dwEveryMs, 1, 3600000,
              "Milliseconds to the next fault of a connection, on average (2000)");
    AddNumber(aApp, "--bytes", plan.m_dwBytes, 1, 1000000000,
              "Bytes, in both directions together, to the next fault; instead of --every");
    Exclude(aApp, "--bytes", "--every");
    aApp.add_flag("--together", plan.m_bTogether, "Apply each fault to all connections at once")
        ->excludes(aApp.get_option("--bytes"));
    AddNumber(aApp, "--count", plan.m_dwCount, 1, 1000000000, "Faults to make; then forward without");
    AddNumber(aApp, "--stall", plan.m_dwStallMs, 1, 3600000, "Milliseconds of a stall (3000)");
    AddNumber(aApp, "--delay", plan.m_dwDelayMs, 0, 60000, "Milliseconds of delay in each direction (0)");
    AddNumber(aApp, "--seed", plan.m_dwSeed, 0, 2147483647, "Seed of all choices (1)");
}

std::string CheckFlaky(Arguments& a) {
    const std::string strListen = ParseListenEndpoint(a.m_strListen, a.m_Addr);
    return strListen.empty() ? ParseEndpoint(a.m_strEndpoint, a.m_AddrTarget) : strListen;
}

void DeclarePublish(CLI::App& aApp, Arguments& a) {
    DeclareListening(aApp, a);
    DeclareType(aApp, a);
    DeclareTlsServer(aApp, a);
    aApp.add_option(
            "--policy", a.m_strPolicy,
            "Treatment of a receiver that is 1 MiB behind: disconnect (the default), drop-oldest, conflate, or wait, which "
            "holds back all receivers")
        ->check(CLI::IsMember(GetPolicyNames()))
        ->option_text("POLICY");
    AddNumber(aApp, "--key-field", a.m_dwKeyField, 1, 1000,
              "The field of a line, counted from 1 and separated by blanks, that is its key");
    aApp.add_option(
            "--file", a.m_strFile,
            "File with the lines; by default stdin. A line of 16 MiB or more, or too long for --type, is reported and left out")
        ->option_text("FILE");
    AddNumber(aApp, "--rate", a.m_dwRate, 1, 1000000, "Lines a second; by default no limit");
}

std::string CheckPublish(Arguments& a) {
    a.m_Policy = ChoosePolicy(a.m_strPolicy);
    if (a.m_Policy == CM_FORWARD_CONFLATE && a.m_dwKeyField == 0)
        return "--policy conflate needs --key-field";
    return CheckListening(a);
}

void DeclareSubscribe(CLI::App& aApp, Arguments& a) {
    DeclareType(aApp, a);
    DeclareTlsClient(aApp, a);
    DeclareBind(aApp, a);
    DeclareEndpoint(aApp, a, "Endpoint of `talvo publish`, see talvo --help");
    aApp.add_option(
            "--join", a.m_strJoin,
            "Lines to begin with: next (the default), all-keys (the newest line of each key) or oldest (all that are kept)")
        ->check(CLI::IsMember(GetJoinNames()))
        ->option_text("POINT");
}

std::string CheckSubscribe(Arguments& a) { return CheckPeer(a, a.m_strEndpoint); }

struct Subcommand {
    const char* m_pName;
    const char* m_pSummary;
    void (*m_pDeclare)(CLI::App&, Arguments&);
    std::string (*m_pCheck)(Arguments&);
    int (*m_pRun)(const Arguments&);
};

constexpr Subcommand SUBCOMMANDS[] = {
    {"recv", "Receive files into a directory", DeclareRecv, CheckRecv, RunRecv},
    {"send", "Send files to a `talvo recv`", DeclareSend, CheckSend, RunSend},
    {"echo", "Send all data back, for any number of clients", DeclareEcho, CheckListening, RunEcho},
    {"ping", "Measure round trips to a `talvo echo`", DeclarePing, CheckPing, RunPing},
    {"get", "Fetch files by their URLs", DeclareGet, CheckGet, RunGet},
    {"bench", "Measure a server under load", DeclareBench, CheckBench, RunBench},
    {"resolve", "Look up the addresses of host names", DeclareResolve, CheckResolve, RunResolve},
    {"serve", "Serve the files of a directory over HTTP or https", DeclareServe, CheckServe, RunServe},
    {"publish", "Forward lines to any number of `talvo subscribe`", DeclarePublish, CheckPublish, RunPublish},
    {"subscribe", "Print the lines of a `talvo publish`", DeclareSubscribe, CheckSubscribe, RunSubscribe},
    {"flaky", "Forward connections, and break them by a plan", DeclareFlaky, CheckFlaky, RunFlaky},
    {"proxy", "Show the proxies that the user's settings give for URLs", DeclareProxyLook, CheckProxyLook, RunProxy},
    {"tls", "Show the TLS of a server: certificates, protocol, resumption", DeclareTls, CheckTls, RunTls},
};

DWORD GetBaseType(const Arguments& a) {
    if (a.m_bUdp)
        return CM_TRANSPORT_TYPE_UDP;
    return a.m_Tls.m_bTls ? CM_TRANSPORT_TYPE_TLS : CM_TRANSPORT_TYPE_TCP;
}

// A script's "$FILE" may be unset: an empty value is never taken for an option that was not given. Two options have a meaning
// for it.
std::string CheckValues(const CLI::App& aCommand) {
    for (const CLI::Option* pOption : aCommand.parse_order()) {
        const std::vector<std::string>& values = pOption->results();
        const bool bEmpty = std::find(values.begin(), values.end(), "") != values.end();
        const bool bMeant = pOption->check_lname("data") || pOption->check_lname("index");
        if (bEmpty && !bMeant && pOption->get_items_expected_max() > 0)
            return pOption->get_name() + ": the value is empty";
    }
    return "";
}

std::string CheckSubcommand(const CLI::App& aApp, Arguments& aArguments) {
    for (const Subcommand& command : SUBCOMMANDS) {
        if (!aApp.got_subcommand(command.m_pName))
            continue;
        const std::string strValues = CheckValues(*aApp.get_subcommand(command.m_pName));
        if (!strValues.empty())
            return strValues;
        aArguments.m_pRun = command.m_pRun;
        const std::string strCommon = CheckCommon(aArguments);
        if (!strCommon.empty())
            return strCommon;
        const std::string strType = ChooseType(aArguments.m_strType, GetBaseType(aArguments), aArguments.m_dwType);
        return strType.empty() ? command.m_pCheck(aArguments) : strType;
    }
    return "a subcommand is missing; 'talvo --help' lists them";
}

void Declare(CLI::App& aApp, Arguments& aArguments) {
    aApp.set_version_flag("-V,--version", "talvo " TALVO_TOOL_VERSION);
    aApp.require_subcommand(0, 1);
    aApp.formatter(MakeHelpFormat());
    for (const Subcommand& command : SUBCOMMANDS) {
        CLI::App* pSub = aApp.add_subcommand(command.m_pName, command.m_pSummary);
        command.m_pDeclare(*pSub, aArguments);
        DeclareCommon(*pSub, aArguments);
    }
    DeclareHelp(*aApp.add_subcommand("help", "Show the help of a command, or a page or completion made from it"), aArguments);
    aApp.footer(FOOTER);
}

std::string DescribeError(int aArgc, char** aArgv, const CLI::ParseError& aError) {
    const std::string strFirst = aArgc > 1 ? aArgv[1] : "";
    const bool bCommand = strFirst == "help" || std::any_of(std::begin(SUBCOMMANDS), std::end(SUBCOMMANDS),
                                                            [&](const Subcommand& aRow) { return strFirst == aRow.m_pName; });
    return strFirst.empty() || strFirst.starts_with('-') || bCommand ? aError.what() : DescribeUnknown(strFirst);
}

}  // namespace

bool ParseArguments(int aArgc, char** aArgv, Arguments& aArguments, int& aStatus) {
    CLI::App app("Moves files and measures connections over the talvo library.", "talvo");
    std::string strProblem;
    try {
        Declare(app, aArguments);
        // The parser takes it for --cors, which would allow every origin.
        if (std::find(aArgv, aArgv + aArgc, std::string_view("--cors=")) != aArgv + aArgc)
            throw CLI::ValidationError("--cors", "the value is empty");
        app.parse(aArgc, aArgv);
        if (app.got_subcommand("help")) {
            strProblem = PrintHelp(app, aArguments);
            aStatus = EXIT_OK;
            if (strProblem.empty())
                return false;
        } else {
            strProblem = CheckSubcommand(app, aArguments);
        }
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            std::ostringstream text;
            aStatus = app.exit(error, text, text);  // the help or the version
            Console::Print(text.str());
            return false;
        }
        strProblem = DescribeError(aArgc, aArgv, error);
    }
    if (strProblem.empty()) {
        if (aArguments.m_Tls.m_bInsecure)
            Console::Complain(
                "warning: --insecure: the server is not verified, so anyone on the way can read and change the data");
        return true;
    }
    Console::Complain(strProblem);
    aStatus = EXIT_USAGE;
    return false;
}

}  // namespace tool
