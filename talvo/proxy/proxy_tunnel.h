// A connection to the peer through one proxy server.
#pragma once

#include "talvo/event/home_reactor.h"
#include "talvo/proxy/proxy_handshake.h"
#include "talvo/proxy/proxy_peer.h"
#include "talvo/proxy/proxy_server_login.h"
#include "talvo/transport/base_types.h"
#include "talvo/transport/dns/name_lookup.h"

namespace talvo {

// Connects to the server, opens the tunnel, and for the types of TLS shakes hands with the peer. It connects to the server
// again if that needs credentials: while the user is asked there is no connection. One attempt at a time; in the thread of its
// reactor.
class CProxyTunnel final : private ACmConnectorUpper,
                           private ICmTimerHandler,
                           private INameUser,
                           private CProxyHandshakes::IOwner,
                           private CProxyServerLogin::IOwner {
public:
    static constexpr DWORD SERVER_TIME = 10000;  // milliseconds, until the request for the peer; "ServerTimeoutMs"

    enum EResult {
        OPENED,
        UNREACHED,  // the server: the next one may do
        UNFIT,      // this kind of server has no address of the peer
        REFUSED     // final
    };

    class IOwner {
    public:
        // The one report of an attempt in progress. aTransport: of OPENED, else null. May start the next attempt.
        virtual void OnTunnelDone(EResult aResult, CCmTransportTcp* aTransport) = 0;

    protected:
        virtual ~IOwner() = default;
    };

    struct CSettings {
        CCmProxyServer m_Server;
        CProxyPeer m_Peer;
        CCmInetAddr m_AddrPeer;   // for TLS and for messages
        CCmInetAddr m_AddrLocal;  // CCmInetAddr::s_InetAddrAny: not given
        BOOL m_bTimed = FALSE;    // the upper connector limits the time
    };

    // aType: 1, 4, 8 or 12. aOptions: a connector of this type whose options count. Both outlive the tunnel.
    CProxyTunnel(DWORD aType, ICmReactor* aReactor, IOwner& aOwner, ACmConnectorInternal& aOptions);
    ~CProxyTunnel() override;

    // FALSE: in progress. TRUE: failed at once, with aResult (out) and without a report. May throw std::bad_alloc; Stop it
    // then.
    BOOL Start(CSettings aSettings, EResult& aResult);
    void Stop();

    // Of a result other than OPENED: the reason for an indication and the failure.
    CmResult GetReason() const { return m_Reason; }
    const CCmFailure& GetFailure() const { return m_Failure; }

private:
    enum EStage {
        IDLE,
        LOOKING_UP,  // the peer's IPv4 address, for SOCKS 4
        GREETING,    // name and connect of the server, and its greeting
        ASKING_USER,
        ASKED,  // for the peer
        TLS     // with the peer
    };

    BOOL IsRefused_i(EResult& aResult);
    CCmString GetServerName_i() const;
    BOOL LookUp_i(EResult& aResult);
    BOOL UseAddressOf_i(const CCmDnsRecord& aRecord);
    BOOL Connect_i(EResult& aResult);
    void Begin_i();
    void PassOptions_i();
    void SetStage_i(EStage aStage);
    CmResult Arm_i(DWORD aMilliseconds);
    void ConnectAgain_i();
    void Over_i(EResult aResult, CCmTransportTcp* aTransport = nullptr);
    EResult Judge_i(CmResult aReason);
    EResult Fail_i(EResult aResult, CmResult aReason, const CCmFailure& aFailure);
    EResult Refuse_i(CmResult aReason, ECmFailureCause aCause, const char* aText);
    EResult Unreached_i(const CCmFailure& aFailure);

    int OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal* aId) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;
    void OnNameKnown(const CCmDnsRecord& aRecord) override;
    const CCmProxyServer& GetServer() const override { return m_Settings.m_Server; }
    std::unique_ptr<IProxyDialog> MakeDialog() override;
    void OnAsked() override { SetStage_i(ASKED); }
    void OnTaken(BOOL aRepeating) override { m_bAgain = aRepeating; }
    void OnTunnel() override { SetStage_i(TLS); }
    void OnRefused(IProxyDialog::EStep aStep, const CProxyRefusal& aRefusal) override;
    void OnLogin(CmResult aResult) override;

    const DWORD m_dwType;
    const CHomeReactor m_pReactor;
    IOwner& m_Owner;
    ACmConnectorInternal& m_Options;
    const std::shared_ptr<CProxyHandshakes> m_pHandshakes;
    const std::unique_ptr<ACmConnectorInternal> m_pLower;  // null: memory ran out
    CNameLookup m_Lookup{*this, FALSE};
    CSettings m_Settings;
    std::unique_ptr<CProxyServerLogin> m_pLogin;
    EStage m_Stage = IDLE;
    DWORD m_dwConnects = 0;
    BOOL m_bAgain = FALSE;  // after an end of the connection the request is repeated on another one
    CProxyRefusal m_Refusal;
    CmResult m_Reason = CM_OK;
    CCmFailure m_Failure;
};

}  // namespace talvo
