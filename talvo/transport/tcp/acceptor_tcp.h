// Listens on a TCP port or a path.
#pragma once

#include <memory>

#include "talvo/base/trace_pace.h"
#include "talvo/event/later_report.h"
#include "talvo/transport/acceptor_base.h"
#include "talvo/transport/base_types.h"
#include "talvo/transport/socket.h"
#include "talvo/transport/tcp/handshakes_in_flight.h"
#include "talvo/transport/unix_path.h"

// Accepts one connection a readiness report. If the process is out of descriptors, it pauses for a tenth of a second at a time,
// leaves the peers in the backlog (1,024) and continues when a descriptor is free. A failure to accept is traced and never
// reported to the sink. The listener sets SO_REUSEADDR, so that a restarted server can bind at once; a port with an active
// listener is still refused.
//
// With a maker of handshakes it indicates a connection after its handshakes. The maker limits their time and their number. A
// failed one is closed with a line in the trace, one line a second. At the limit of the number a further connection replaces
// the one whose peer has been silent longest, if that is a second or more; otherwise peers wait in the backlog. StopListen ends
// all handshakes.
class TALVO_API CCmAcceptorTcp : public CCmAcceptorBase,
                                 public ACmEventHandler,
                                 public ICmTimerHandler,
                                 private talvo::CHandshakesInFlight::IOwner {
public:
    // aHandshakes: null: none.
    explicit CCmAcceptorTcp(std::shared_ptr<talvo::IHandshakeMaker> aHandshakes = nullptr);
    ~CCmAcceptorTcp() override;

    static CCmRefPtrT<ICmAcceptor> Make(const CCmAcceptorSettings& aSettings);  // a CCmAcceptorMaker

    // Also: CM_ERROR_NOT_INITIALIZED: there is no network thread; or the reactor's failure to register.
    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) override;
    CmResult StopListen(CmResult aReason) override;
    CmResult GetListenAddr(CCmInetAddr& aAddr) override;

    CmHandle GetHandle() const override { return m_Socket.GetHandle(); }
    int OnInput(CmHandle aFd) override;
    int OnClose(CmHandle aFd, long aMask) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

protected:
    // Called by each StartListen that may bind; a failure is its result. Sets m_Failure then.
    virtual CmResult Prepare_i(const CCmInetAddr&) { return CM_OK; }

private:
    enum EPause { NOT, DESCRIPTORS /* is out of them */, HANDSHAKES /* has as many as may be in flight */ };

    CmResult Bind_i(const CCmInetAddr& aAddrListen);
    void AcceptFailed_i(int aError);
    void OutOfDescriptors_i(int aError);
    void Pause_i(EPause aPause, const CCmTimeValue& aTime);
    void Resume_i();
    void OnRetry();
    CmBool MakeRoom_i();
    void ShakeHands_i(CCmRefPtrT<CCmTransportTcp> aTransport);
    void OnShaken(CCmRefPtrT<CCmTransportTcp> aTransport, const CCmFailure& aFailure) override;
    void TraceFailure_i(const CCmFailure& aFailure);

    const std::shared_ptr<talvo::IHandshakeMaker> m_pHandshakes;
    talvo::CHandshakesInFlight m_Shaking{m_pReactor, *this};
    CCmSocketTcp m_Socket;
    talvo::CUnixPath m_Path;
    CCmInetAddr m_AddrListen;
    CmBool m_bOneLocal = CM_FALSE;       // each connection's local address is m_AddrListen
    CmBool m_bUndelayed = CM_FALSE;      // accepted sockets have the listener's TCP_NODELAY
    talvo::CSocketSettings m_Listening;  // of the connections; accepted TCP sockets have the listener's buffer sizes
    EPause m_Pause = NOT;                // else not registered, and the timer runs
    talvo::CTracePace m_TracePace;       // of the lines about descriptors
    talvo::CTracePace m_ShakingPace;     // of the lines about handshakes
    talvo::CLaterReportT<CCmAcceptorTcp, &CCmAcceptorTcp::OnRetry> m_Retry{*this};  // instead of the timer, without memory
};
