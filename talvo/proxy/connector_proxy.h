// Opens a connection directly or through proxy servers.
#pragma once

#include "talvo/proxy/proxy_tunnel.h"
#include "talvo/transport/option_values.h"
#include "talvo/transport/proxy_source.h"

namespace talvo {

// The connector of the types 1, 4, 8, 12 and 0x8000. Its route is that of CM_OPT_CONNECT_ROUTE, or the proxy source's, see
// CM_OPT_CONNECT_PROXY; otherwise it only passes everything on to a connector of TCP or TLS. The servers of a route are tried
// in turn until one of them can be reached: that one decides. May be used again after each report.
//
// The reasons of a failure: CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE: no server can be reached, or one refuses;
// CM_ERROR_NETWORK_CONNECT_ERROR: the server cannot reach the peer; CM_ERROR_NETWORK_DNS_FAILURE: no server of the route can
// be given the peer's address. That of a failed DIRECT at the end of the route is its own, and so is that of TLS.
class TALVO_API CConnectorProxy final : public ACmConnectorInternal,
                                        private ACmConnectorUpper,
                                        private ICmTimerHandler,
                                        private ICmProxySourceSink,
                                        private CProxyTunnel::IOwner {
public:
    static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings);  // a CCmConnectorMaker
    ~CConnectorProxy() override { CConnectorProxy::Close(); }

    // Also -1: a proxy must not get the peer's name, see CProxyPeer. With OPT_CONNECT_NEVER_DIRECT, see there, DIRECT fails.
    int Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal = nullptr) override;
    void Close() override;
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;

private:
    explicit CConnectorProxy(const CCmConnectorSettings& aSettings);

    BOOL IsRouted_i(const CCmInetAddr& aAddr, const CCmProxyRoute& aRoute) const;
    int ConnectDirectly_i(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal);
    BOOL Begin_i(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal, const CCmProxyRoute& aRoute);
    void AskSource_i();
    void UseAnswer_i(CmResult aReason, const CCmProxyRoute& aRoute);
    void Use_i(const CCmProxyRoute& aRoute);
    void Next_i();
    BOOL StartDirect_i();
    BOOL StartTunnel_i(const CCmProxyServer& aServer);
    void OnTunnelDone_i(CProxyTunnel::EResult aResult);
    void Note_i(CmResult aReason, const CCmFailure& aFailure);
    void Finish_i(CmResult aReason, ICmTransport* aTrpt = nullptr);
    template <class Callable>
    void FromLoop_i(Callable aStep);

    int OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal* aId) override;
    void OnTunnelDone(CProxyTunnel::EResult aResult, CCmTransportTcp* aTransport) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;
    void OnProxyRoute(CmResult aReason, const CCmProxyRoute& aRoute) override;
    void OnProxySettingsChanged() override;

    const BOOL m_bProxied;  // of type 0x8000
    const DWORD m_dwType;   // of the transports
    const CHomeReactor m_pReactor;
    ACmConnectorUpper& m_Upper;
    COptionValues m_Options;                                // the route
    const std::unique_ptr<ACmConnectorInternal> m_pDirect;  // has all other options; null: memory ran out
    std::unique_ptr<CProxyTunnel> m_pTunnel;                // made when it is needed

    CProxyPeer m_Peer;
    CCmInetAddr m_AddrPeer;
    CCmInetAddr m_AddrLocal;
    ICmProxySource* m_pSource = nullptr;  // not owned; has a question of this connector
    BOOL m_bAskedAgain = FALSE;
    BOOL m_bNeverDirect = FALSE;
    BOOL m_bRouted = FALSE;    // FALSE: an attempt is m_pDirect's alone
    BOOL m_bStarting = FALSE;  // inside Connect, which must not report
    BOOL m_bTimer = FALSE;
    BOOL m_bReportDue = FALSE;  // from the timer
    std::vector<CCmProxyServer> m_Servers;
    size_t m_stNext = 0;
    CmResult m_Reason = CM_OK;  // of the last server that was tried
};

}  // namespace talvo
