// The client of `talvo ping`.
#pragma once

#include <string>
#include <vector>

#include "talvo/talvo.h"
#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/console.h"
#include "tools/outbox.h"

namespace tool {

// Sends a message, waits until all of it has come back unchanged, records the time, and repeats. Then finishes the application,
// with EXIT_OK if all came back; if messages may be lost, any one is enough. The gaps of a reliable connection are printed, and
// the wait for an answer begins anew behind each. Main thread. The arguments, the application and
// the console outlive it.
class PingClient : private ICmAcceptorConnectorSink,
                   private ICmTransportSink,
                   private ICmReconnectSink,
                   private CCmTimerWrapperIDSink {
public:
    PingClient(const Arguments& aArguments, Application& aApplication, Console& aConsole);
    ~PingClient() override;
    PingClient(const PingClient&) = delete;
    PingClient& operator=(const PingClient&) = delete;

    void Start();
    // The results so far.
    void ReportStatistics();

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnSuspended(ICmTransport* aTrptId, CmResult aReason) override;
    void OnResumed(ICmTransport* aTrptId, DWORD aMilliseconds) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    bool Open();
    void SendNext();
    void FillMessage();
    bool IsComingBack(const CCmMessageBlock& aData) const;
    void OnAnswer();
    void OnNoAnswer();
    void GoOn();
    void ShowProgress();
    void GiveUp(const Failure& aFailure);
    void Close(int aStatus);

    const Arguments& m_Arguments;
    const bool m_bMayLose;
    Application& m_Application;
    Console& m_Console;
    const CCmInetAddr m_FirstAddr;  // the peer, or of a race the first one
    std::string m_strPeer;          // for messages
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    Outbox m_Outbox;
    CCmTimerWrapperID m_TimerNext;
    CCmTimerWrapperID m_TimerAnswer;  // runs during the connect and while an answer is missing
    std::string m_strMessage;         // the current message
    size_t m_nTaken = 0;              // the bytes of it that have come back
    bool m_bWaiting = false;          // it was sent and is not back yet
    int64_t m_llSent = 0;             // when it was sent, in microseconds
    DWORD m_dwSent = 0;               // messages
    std::vector<DWORD> m_vecUsec;     // round trips
    int64_t m_llStarted = 0;          // when the first message was sent, in microseconds
    int64_t m_llShown = 0;            // when the progress was printed
    DWORD m_dwGaps = 0;
    uint64_t m_ullGapMs = 0;  // in all
};

}  // namespace tool
