// The server of `talvo publish`.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "talvo/talvo.h"
#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/console.h"
#include "tools/line_source.h"

namespace tool {

// Forwards each line, with its end, to all receivers. A receiver may ask for its join point with its first line; one that asks
// for none within a second gets the next message first. At the end of the lines waits until all receivers have them, or none
// has taken one for LingerSeconds, and finishes the application. Main thread, which is the network thread. The arguments, the
// application and the console outlive it.
class Publisher : private ICmAcceptorConnectorSink, private ICmForwardSink, private LineSink, private CCmTimerWrapperIDSink {
public:
    Publisher(const Arguments& aArguments, Application& aApplication, Console& aConsole);
    ~Publisher() override;
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    // Begins to listen. If that fails, reports it and finishes the application.
    void Start();

private:
    class Peer;

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceiver(DWORD aId, CmResult aReason) override;
    void OnForward() override;
    void OnJoin(DWORD aId) override;
    bool OnLine(const Line& aLine) override;
    void OnEnd(const std::string& aProblem) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    void Join(Peer& aPeer, ECmForwardJoin aJoin);
    void Forget(ICmTransport* aTransport);
    void ReportDrops(DWORD aId, Peer& aPeer);
    void FinishWhenSent();
    bool SkipLine(const Line& aLine);
    void ComplainOfInput(const std::string& aProblem);
    void Complain(const Failure& aFailure);
    std::string GetInputName() const;
    uint64_t GetKey(const std::string& aLine) const;

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    CCmRefPtrT<ICmForwardSession> m_pSession;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::map<ICmTransport*, std::unique_ptr<Peer>> m_Peers;
    std::map<DWORD, Peer*> m_Receivers;
    LineSource m_Source;
    CCmTimerWrapperID m_Watch;  // for drops, and for the end
    bool m_bEnded = false;      // there are no more lines
    bool m_bSkipped = false;    // a line was too long
    uint64_t m_ullSent = 0;     // messages since then, and the tick when the last one was seen
    DWORD m_dwProgress = 0;
};

}  // namespace tool
