#include <memory>
#include <unordered_map>

#include "tools/application.h"
#include "tools/commands.h"
#include "tools/flaky_link.h"
#include "tools/listening.h"
#include "tools/memory.h"
#include "tools/text.h"

namespace tool {

namespace {

// Accepts, and owns all links.
class FlakyServer : public ICmAcceptorConnectorSink, public FlakyLinkOwner, private CCmTimerWrapperIDSink {
public:
    FlakyServer(const Arguments& aArguments, Console& aConsole)
        : m_Arguments(aArguments), m_Plan(aArguments.m_Flaky), m_Console(aConsole), m_Dice(m_Plan, 0) {}
    ~FlakyServer() override {
        if (m_pAcceptor)
            m_pAcceptor->StopListen(CM_OK);
    }

    bool Start() {
        if (!StartListening(m_Arguments, this, m_Console, m_pAcceptor))
            return false;
        if (m_Plan.m_bTogether)
            PlanFault();
        return true;
    }

    void ReportStatistics() {
        m_Console.Report(
            std::to_string(m_dwLinks) + " connections, " + std::to_string(m_dwFaults) + " faults, " + FormatBytes(m_ullBytes) +
                " forwarded",
            JsonLine("statistics").Add("connections", m_dwLinks).Add("faults", m_dwFaults).Add("bytes", m_ullBytes));
    }

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aReason != CM_OK)
            return;
        auto pLink = std::make_unique<FlakyLink>(m_Arguments, ++m_dwLinks, *this, m_Console);
        FlakyLink& link = *m_Links.emplace(pLink.get(), std::move(pLink)).first->second;
        link.Start(aTrpt);
    }
    bool TakeFault() override { return (m_Plan.m_dwCount == 0 || m_dwFaults < m_Plan.m_dwCount) && ++m_dwFaults > 0; }
    void OnBytes(DWORD aBytes) override { m_ullBytes += aBytes; }
    void OnLinkOver(FlakyLink& aLink) override {
        m_Over.push_back(std::move(m_Links.extract(&aLink).mapped()));
        RequireMemory(m_TimerOver.Schedule(this, CCmTimeValue::s_tvZero, 1));
    }

    void OnTimer(CCmTimerWrapperID* aId) override {
        if (aId == &m_TimerOver)
            m_Over.clear();
        else if (TakeFault())
            StrikeAll();
    }
    void PlanFault() {
        const int64_t llMs = m_Dice.Around(m_Plan.m_dwEveryMs);
        RequireMemory(m_TimerFault.Schedule(this, CCmTimeValue::FromUsec(llMs * 1000), 1));
    }
    void StrikeAll() {
        const std::string& strFault = m_Dice.ChooseFault();
        std::vector<FlakyLink*> links;
        for (const auto& [pLink, pOwned] : m_Links)
            links.push_back(pLink);
        for (FlakyLink* pLink : links)
            pLink->Strike(strFault);
        PlanFault();
    }

    const Arguments& m_Arguments;
    const FlakyPlan& m_Plan;
    Console& m_Console;
    FlakyDice m_Dice;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::unordered_map<FlakyLink*, std::unique_ptr<FlakyLink>> m_Links;
    std::vector<std::unique_ptr<FlakyLink>> m_Over;  // to delete
    CCmTimerWrapperID m_TimerOver;
    CCmTimerWrapperID m_TimerFault;
    DWORD m_dwLinks = 0;
    DWORD m_dwFaults = 0;
    uint64_t m_ullBytes = 0;
};

}  // namespace

int RunFlaky(const Arguments& aArguments) {
    Application::RaiseDescriptorLimit();
    Console console(aArguments.m_bJson);
    Application application(CCmThreadManager::NETWORK_THREAD_MAIN);
    FlakyServer server(aArguments, console);
    if (application.IsStarted() && !server.Start())
        return EXIT_FAILED;
    const int nStatus = application.Run();
    server.ReportStatistics();
    return nStatus;
}

}  // namespace tool
