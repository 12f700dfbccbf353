// The client behind `talvo ping`.
#pragma once

#include <string>
#include <vector>

#include "talvo/talvo.h"
#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/console.h"
#include "tools/outbox.h"

namespace tool {

// Sends a message, waits until all of it came back unchanged, notes the time, and so on; then finishes the application: EXIT_OK
// if all came back, or any where messages may be lost. Main thread; the arguments, the application and the console outlive it.
class PingClient : private ICmAcceptorConnectorSink, private ICmTransportSink, private CCmTimerWrapperIDSink {
public:
    PingClient(const Arguments& aArguments, Application& aApplication, Console& aConsole);
    ~PingClient() override;
    PingClient(const PingClient&) = delete;
    PingClient& operator=(const PingClient&) = delete;

    void Start();
    // What was measured so far.
    void ReportStatistics();

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    void SendNext();
    void FillMessage();
    bool IsComingBack(const CCmMessageBlock& aData) const;
    void OnAnswer();
    void OnNoAnswer();
    void GoOn();
    void GiveUp(const std::string& aText);
    void Close(int aStatus);

    const Arguments& m_Arguments;
    const bool m_bMayLose;
    Application& m_Application;
    Console& m_Console;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    Outbox m_Outbox;
    CCmTimerWrapperID m_TimerNext;
    CCmTimerWrapperID m_TimerAnswer;  // runs while the connection or an answer is awaited
    std::string m_strMessage;         // the one under way
    size_t m_nTaken = 0;              // how much of it has come back
    bool m_bWaiting = false;          // it has been sent and is not back yet
    int64_t m_llSent = 0;             // when, in microseconds
    DWORD m_dwSent = 0;               // messages
    std::vector<DWORD> m_vecUsec;     // round trips
};

}  // namespace tool
