// The client of `talvo tls`.
#pragma once

#include <string>

#include "talvo/talvo.h"
#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/console.h"

namespace tool {

// Connects with verification. If the certificate is refused, connects once more without, only to show it; otherwise connects
// once more to see whether the session is resumed. Sends no data. Then reports, and finishes the application, with EXIT_OK if
// the server was verified. Main thread. The arguments, the application and the console outlive it.
class TlsLook : private ICmAcceptorConnectorSink, private ICmTransportSink, private CCmTimerWrapperIDSink {
public:
    TlsLook(const Arguments& aArguments, Application& aApplication, Console& aConsole);
    ~TlsLook() override;
    TlsLook(const TlsLook&) = delete;
    TlsLook& operator=(const TlsLook&) = delete;

    void Start();

private:
    enum EStep {
        VERIFY,  // by the arguments
        SHOW,    // without verification
        RESUME   // by the arguments again
    };

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override {}
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    void Connect(EStep aStep);
    CmResult MakeConnectorOfStep();
    void OnRefused(CmResult aReason);
    void OnShaken();
    void GiveUp(const Failure& aFailure);
    void WaitForTickets();
    void ReportCertificates() const;
    void Report();
    void Close();

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    EStep m_Step = VERIFY;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmTimerWrapperID m_Timer;     // the end of the wait for tickets
    CCmSslInfo m_Info;             // of the first connection with a complete handshake
    std::string m_strNotVerified;  // the reason of the refusal; "": the certificate was not refused
    std::string m_strEnd;          // of the first connection; "": it was orderly, or has not come in time
    bool m_bResumed = false;
};

}  // namespace tool
