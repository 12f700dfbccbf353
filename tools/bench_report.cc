#include "tools/bench_report.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>

#include "tools/file_handle.h"
#include "tools/text.h"

namespace tool {

namespace {

struct Percentile {
    const char* m_pName;
    const char* m_pKey;
    double m_dPercent;
};

constexpr Percentile PERCENTILES[] = {{"p50", "p50_usec", 50}, {"p75", "p75_usec", 75},      {"p90", "p90_usec", 90},
                                      {"p99", "p99_usec", 99}, {"p99.9", "p999_usec", 99.9}, {"p99.99", "p9999_usec", 99.99}};
constexpr size_t BAR_WIDTH = 50;

std::string Format(const char* aFormat, double aValue) {
    char szText[64];
    std::snprintf(szText, sizeof(szText), aFormat, aValue);
    return szText;
}

double ToUsec(uint64_t aNanoseconds) { return static_cast<double>(aNanoseconds) / 1000; }

double GetPerSecond(const BenchLoad::Results& aResults) {
    return aResults.m_dSeconds > 0 ? static_cast<double>(aResults.m_ullInTime) / aResults.m_dSeconds : 0;
}

std::string DescribeKind(const BenchPlan& aPlan) {
    switch (aPlan.m_Kind) {
    case BenchPlan::ECHO:
        return "echo";
    case BenchPlan::ONE_WAY:
        return "one way";
    case BenchPlan::HTTP:
        break;
    }
    return "http";
}

std::string DescribeLatency(const Histogram& aLatency, const BenchPlan& aPlan) {
    const bool bToTaken = aPlan.m_Kind == BenchPlan::ONE_WAY && !aPlan.m_bTakesTimes;
    std::string strText = aPlan.m_dRate > 0 ? "us from the intended time" : "us from the sending";
    strText += bToTaken ? " until the connection took it" : "";
    strText += ": min " + Format("%.1f", ToUsec(aLatency.GetMin())) + ", mean " + Format("%.1f", aLatency.GetMean() / 1000);
    for (const Percentile& percentile : PERCENTILES)
        strText += std::string(", ") + percentile.m_pName + " " +
                   Format("%.1f", ToUsec(aLatency.GetPercentile(percentile.m_dPercent)));
    return strText + ", max " + Format("%.1f", ToUsec(aLatency.GetMax()));
}

// A line for each power of two, with a bar.
void PrintHistogram(const Histogram& aLatency, Console& aConsole) {
    const std::vector<Histogram::Bucket> vecBuckets = aLatency.GetBuckets();
    uint64_t ullUpTo = 1000;
    for (size_t i = 0; i < vecBuckets.size(); ullUpTo *= 2) {
        uint64_t ullCount = 0;
        for (; i < vecBuckets.size() && vecBuckets[i].m_ullMost <= ullUpTo; ++i)
            ullCount += vecBuckets[i].m_ullCount;
        const double dPart = static_cast<double>(ullCount) / static_cast<double>(aLatency.GetCount());
        if (ullCount > 0)
            aConsole.Result(Format("up to %9.0f us ", ToUsec(ullUpTo)) + Format("%6.2f%% ", 100 * dPart) +
                                std::string(static_cast<size_t>(std::ceil(dPart * BAR_WIDTH)), '#'),
                            JsonLine(""));
    }
}

void PrintText(const std::string& aTarget, const BenchLoad::Results& a, Console& aConsole) {
    const BenchPlan& plan = a.m_Plan;
    std::string strLoad = DescribeKind(plan) + " to " + aTarget + ", " + std::to_string(plan.m_stConnections) +
                          (plan.m_stConnections == 1 ? " connection, " : " connections, ");
    strLoad += plan.m_Kind == BenchPlan::HTTP ? "" : std::to_string(plan.m_stSize) + " bytes, ";
    strLoad += plan.m_dRate > 0 ? Format("%.0f a second", plan.m_dRate) : "the next one after each answer";
    aConsole.Result(strLoad, JsonLine(""));
    std::string strCounts = std::to_string(a.m_ullSent) + " sent in " + Format("%.2f", a.m_dSeconds) + " s, " +
                            Format("%.1f", GetPerSecond(a)) + " a second";
    if (a.m_ullMissing > 0)
        strCounts += ", " + std::to_string(a.m_ullMissing) + " without an answer";
    if (a.m_ullLate > 0)
        strCounts += ", " + std::to_string(a.m_ullLate) + " more were due and not sent";
    if (a.m_ullOtherStatus > 0)
        strCounts += ", " + std::to_string(a.m_ullOtherStatus) + " with a status other than 2xx";
    aConsole.Result(strCounts, JsonLine(""));
    aConsole.Result(DescribeLatency(a.m_Latency, plan), JsonLine(""));
    PrintHistogram(a.m_Latency, aConsole);
}

void PrintJson(const Arguments& aArguments, const std::string& aTarget, const BenchLoad::Results& a, Console& aConsole) {
    JsonLine json("bench");
    json.Add("kind", DescribeKind(a.m_Plan)).Add("target", aTarget);
    json.Add("type", aArguments.m_strType.empty() ? "tcp" : aArguments.m_strType).Add("connections", a.m_Plan.m_stConnections);
    json.Add("size", a.m_Plan.m_stSize).Add("rate", a.m_Plan.m_dRate).Add("seconds", a.m_dSeconds);
    json.Add("sent", a.m_ullSent).Add("missing", a.m_ullMissing).Add("late", a.m_ullLate);
    json.Add("reconnects", a.m_ullReconnects).Add("other_status", a.m_ullOtherStatus).Add("per_second", GetPerSecond(a));
    json.Add("min_usec", ToUsec(a.m_Latency.GetMin())).Add("mean_usec", a.m_Latency.GetMean() / 1000);
    for (const Percentile& percentile : PERCENTILES)
        json.Add(percentile.m_pKey, ToUsec(a.m_Latency.GetPercentile(percentile.m_dPercent)));
    json.Add("max_usec", ToUsec(a.m_Latency.GetMax()));
    std::vector<std::pair<double, uint64_t>> vecBuckets;
    for (const Histogram::Bucket& bucket : a.m_Latency.GetBuckets())
        vecBuckets.emplace_back(ToUsec(bucket.m_ullMost), bucket.m_ullCount);
    aConsole.Result("", json.Add("histogram", vecBuckets));
}

std::string EscapeMarkup(const std::string& aText) {
    std::string strText;
    for (const char c : aText)
        strText += c == '&' ? "&amp;" : c == '<' ? "&lt;" : std::string(1, c);
    return strText;
}

}  // namespace

void ReportBench(const Arguments& aArguments, const std::string& aTarget, const BenchLoad::Results& aResults,
                 Console& aConsole) {
    if (aConsole.GetOutput() == Console::JSON)
        PrintJson(aArguments, aTarget, aResults, aConsole);
    else
        PrintText(aTarget, aResults, aConsole);
}

std::string PlotBench(const std::string& aPath, const std::string& aTitle, const Histogram& aLatency) {
    constexpr double LEFT = 80, TOP = 50, WIDTH = 680, HEIGHT = 320, NINES = 4;  // to 99.99 %
    const double dMost = std::max(ToUsec(aLatency.GetPercentile(99.99)), 1.0);
    const auto text = [](double aX, double aY, const char* aAnchor, const std::string& aText) {
        return Format("<text x=\"%.1f\"", aX) + Format(" y=\"%.1f\" text-anchor=\"", aY) + aAnchor + "\">" + aText +
               "</text>\n";
    };
    const auto line = [](double aX1, double aY1, double aX2, double aY2) {
        return Format("<line stroke=\"#ccc\" x1=\"%.1f\"", aX1) + Format(" y1=\"%.1f\"", aY1) + Format(" x2=\"%.1f\"", aX2) +
               Format(" y2=\"%.1f\"/>\n", aY2);
    };
    std::string strSvg =
        "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 800 440\" font-family=\"sans-serif\" "
        "font-size=\"13\">\n<rect width=\"800\" height=\"440\" fill=\"#fff\"/>\n";
    strSvg += text(400, 28, "middle", EscapeMarkup(aTitle));
    for (int i = 0; i <= 4; ++i) {
        const double dY = TOP + HEIGHT - HEIGHT * i / 4;
        strSvg += line(LEFT, dY, LEFT + WIDTH, dY) + text(LEFT - 8, dY + 4, "end", Format("%.0f us", dMost * i / 4));
        const double dX = LEFT + WIDTH * i / NINES;
        const char* TICKS[] = {"0 %", "90 %", "99 %", "99.9 %", "99.99 %"};
        strSvg += line(dX, TOP, dX, TOP + HEIGHT) + text(dX, TOP + HEIGHT + 20, "middle", TICKS[i]);
    }
    strSvg += text(400, TOP + HEIGHT + 48, "middle", "part of the messages whose latency is at most");
    strSvg += "<polyline fill=\"none\" stroke=\"#1f5fa8\" stroke-width=\"2\" points=\"";
    for (int i = 0; i <= 200; ++i) {
        const double dPercent = 100 * (1 - std::pow(10, -NINES * i / 200));
        strSvg += Format("%.1f", LEFT + WIDTH * i / 200) +
                  Format(",%.1f ", TOP + HEIGHT - HEIGHT * ToUsec(aLatency.GetPercentile(dPercent)) / dMost);
    }
    strSvg += "\"/>\n</svg>\n";
    FileHandle file(open(aPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    const bool bWritten = file && WriteAll(file.Get(), strSvg) && file.Close();
    return bWritten ? "" : "cannot write '" + aPath + "': " + SystemError(errno);
}

}  // namespace tool
