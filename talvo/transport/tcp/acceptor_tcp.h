// Listens on a TCP port or a path.
#pragma once

#include <memory>
#include <vector>

#include "talvo/base/trace_pace.h"
#include "talvo/event/later_report.h"
#include "talvo/transport/acceptor_base.h"
#include "talvo/transport/base_types.h"
#include "talvo/transport/socket.h"
#include "talvo/transport/tcp/handshake_run.h"
#include "talvo/transport/unix_path.h"

// Accepts one connection a readiness report. If the process is out of descriptors, it pauses for a tenth of a second at a time,
// leaves the peers in the backlog (1,024) and continues when a descriptor is free. A failure to accept is traced and never
// reported to the sink. The listener sets SO_REUSEADDR, so that a restarted server can bind at once; a port with an active
// listener is still refused.
//
// With a maker of handshakes it indicates a connection after its handshakes. A connection has 10 s for them; a failed one is
// closed with a line in the trace. While 256 are in progress, no further connection is accepted. StopListen ends them.
class TALVO_API CCmAcceptorTcp : public CCmAcceptorBase,
                                 public ACmEventHandler,
                                 public ICmTimerHandler,
                                 private talvo::CHandshakeRun::IOwner {
public:
    // aHandshakes: null: none.
    explicit CCmAcceptorTcp(std::shared_ptr<talvo::IHandshakeMaker> aHandshakes = nullptr);
    ~CCmAcceptorTcp() override;

    static CCmRefPtrT<ICmAcceptor> Make(const CCmAcceptorSettings& aSettings);  // a CCmAcceptorMaker

    // Also: CM_ERROR_NOT_INITIALIZED: there is no network thread; or the reactor's failure to register.
    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) override;
    CmResult StopListen(CmResult aReason) override;
    CmResult GetListenAddr(CCmInetAddr& aAddr) override;

    HANDLE GetHandle() const override { return m_Socket.GetHandle(); }
    int OnInput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

private:
    CmResult Bind_i(const CCmInetAddr& aAddrListen);
    void AcceptFailed_i(int aError);
    void Rest_i(int aError);
    void Resume_i();
    void OnRetry();
    void ShakeHands_i(CCmRefPtrT<CCmTransportTcp> aTransport);
    void OnHandshakeDone(talvo::CHandshakeRun& aRun) override;

    const std::shared_ptr<talvo::IHandshakeMaker> m_pHandshakes;
    std::vector<std::unique_ptr<talvo::CHandshakeRun>> m_Shaking;  // under way
    CCmSocketTcp m_Socket;
    talvo::CUnixPath m_Path;
    CCmInetAddr m_AddrListen;
    BOOL m_bOneLocal = FALSE;            // each connection's local address is m_AddrListen
    talvo::CSocketSettings m_Listening;  // of the connections; accepted TCP sockets have the listener's buffer sizes
    BOOL m_bResting = FALSE;             // out of descriptors: not registered, the timer runs
    BOOL m_bFull = FALSE;                // of handshakes: not registered
    talvo::CTracePace m_TracePace;       // of the lines about that
    talvo::CLaterReportT<CCmAcceptorTcp, &CCmAcceptorTcp::OnRetry> m_Retry{*this};  // instead of the timer, without memory
};
