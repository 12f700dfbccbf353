#include "tools/bench_arguments.h"

#include <algorithm>

#include "tools/common_arguments.h"
#include "tools/connection_type.h"
#include "tools/output.h"
#include "tools/tls_arguments.h"
#include "tools/url.h"

namespace tool {

namespace {

constexpr DWORD TIME_BYTES = 8;  // at the front of a message that has its number or its time in it
constexpr DWORD MOST_RATE = 10000000;

std::string CheckRate(Arguments& a) {
    const bool bDigits = a.m_strRate.find_first_not_of("0123456789") == std::string::npos && a.m_strRate.size() <= 8;
    if (a.m_strRate == "max")
        return "";
    a.m_dwRate = bDigits && !a.m_strRate.empty() ? static_cast<DWORD>(std::stoul(a.m_strRate)) : 0;
    return a.m_dwRate > 0 && a.m_dwRate <= MOST_RATE
               ? ""
               : "--rate: '" + a.m_strRate + "' is neither max nor a number from 1 to " + std::to_string(MOST_RATE);
}

std::string CheckPlot(const std::string& aPath) {
    OutputTarget target;
    const std::string strTarget = JudgeTarget(aPath, target);
    if (!strTarget.empty())
        return "--plot: " + strTarget;
    return target.m_Kind == OutputTarget::STDOUT ? "--plot needs a file" : "";
}

std::string CheckBenchUrl(Arguments& a) {
    const std::string strUrl = CheckUrl(a.m_strTarget);
    CCmHttpUrl url;
    if (!strUrl.empty() || !url.Init(a.m_strTarget))
        return strUrl.empty() ? "'" + a.m_strTarget + "' is no URL" : strUrl;
    if (url.GetScheme() == "file" || !a.m_strType.empty() || a.m_bUdp || a.m_bOneWay || a.m_dwSize > 0)
        return url.GetScheme() == "file" ? "a file URL has no server" : "a URL takes no --type, --udp, --one-way or --size";
    if (url.GetScheme() == "https") {
        a.m_Tls.m_bTls = true;
        a.m_dwType = CM_TRANSPORT_TYPE_TLS;
    }
    const size_t stPath = a.m_strTarget.find_first_of("/?#", a.m_strTarget.find("://") + 3);
    std::string strPath = stPath == std::string::npos ? "/" : a.m_strTarget.substr(stPath);
    strPath = (strPath.starts_with('/') ? "" : "/") + strPath.substr(0, strPath.find('#'));
    const bool bIpv6 = url.GetHostName().find(':') != std::string::npos;
    const std::string strHost = bIpv6 ? "[" + url.GetHostName() + "]" : url.GetHostName();
    a.m_strRequest = "GET " + strPath + " HTTP/1.1\r\nHost: " + url.GetNameAndPort(0) + "\r\nUser-Agent: talvo\r\n\r\n";
    return CheckPeer(a, strHost + ":" + std::to_string(url.GetPort()));
}

}  // namespace

void DeclareBench(CLI::App& aApp, Arguments& a) {
    AddText(aApp, "TARGET", a.m_strTarget, "ENDPOINT|URL",
            "Endpoint of `talvo echo`, see talvo --help, or an http or https URL to get");
    AddFlag(aApp, "--self", a.m_bSelf, "Measure this program: both ends are in its main thread");
    Exclude(aApp, "--self", "TARGET");
    DeclareTlsClient(aApp, a);
    DeclareUdp(aApp, a);
    Exclude(aApp, "--tls", "--self");
    DeclareBind(aApp, a);
    AddFlag(aApp, "--one-way", a.m_bOneWay,
            "Send only, to `talvo echo --discard`; with --self the latency is that of the arrival, else that of the sending");
    DeclareSize(aApp, a);
    AddNumber(aApp, "--connections", a.m_dwConnections, 1, 10000, "Connections (1)");
    AddText(aApp, "--rate", a.m_strRate, "N|max",
            "Messages a second of all connections, at fixed times, from which the latency counts; max (the default): each "
            "connection sends the next message after an answer");
    AddNumber(aApp, "--seconds", a.m_dwSeconds, 1, 86400, "Duration (10)");
    AddText(aApp, "--plot", a.m_strPlot, "FILE", "Draw the latency over the percentiles into an SVG file");
}

std::string CheckBench(Arguments& a) {
    const std::string strRate = CheckRate(a);
    if (!strRate.empty())
        return strRate;
    if (a.m_strTarget.empty() && !a.m_bSelf)
        return "bench needs an ENDPOINT, a URL or --self";
    const std::string strPlot = a.m_strPlot.empty() ? "" : CheckPlot(a.m_strPlot);
    if (!strPlot.empty())
        return strPlot;
    if (a.m_strTarget.find("://") != std::string::npos)
        return CheckBenchUrl(a);
    const std::string strSize = CheckSize(a);
    if (!strSize.empty())
        return strSize;
    if ((MayLose(a.m_dwType) || (a.m_bSelf && a.m_bOneWay)) && a.m_dwSize < TIME_BYTES)
        return "--size: at least " + std::to_string(TIME_BYTES) + " bytes are needed for the number of a message";
    return a.m_bSelf ? CheckPeer(a, "127.0.0.1:1") : CheckPeer(a, a.m_strTarget);
}

}  // namespace tool
