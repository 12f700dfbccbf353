// Opens a TCP connection.
#pragma once

#include "talvo/event/reactor.h"
#include "talvo/transport/connector_internal.h"
#include "talvo/transport/transport_tcp.h"

// Makes a TransportType over a socket that it connects. A connect that completes at once, and a name without an address, are
// reported from a timer of its own, never from inside Connect.
template <class TransportType>
class CCmConnectorTcpT : public ACmConnectorInternal, public ACmEventHandler, public ICmTimerHandler {
public:
    CCmConnectorTcpT(ICmReactor* aReactor, ACmConnectorUpper& aUpper) : m_pReactor(aReactor), m_Upper(aUpper) {}
    ~CCmConnectorTcpT() override;

    // A CCmConnectorMaker.
    static ACmConnectorInternal* Make(ICmReactor* aReactor, ACmConnectorUpper& aUpper);

    int Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal = nullptr) override;
    void Close() override;

    HANDLE GetHandle() const override;
    int OnOutput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

private:
    int Connect_i(TransportType& aTransport, const CCmInetAddr& aAddr);
    int ReportLater_i(CmResult aReason);
    int Finished_i(int aError);
    void Report_i(CmResult aReason);

    ICmReactor* const m_pReactor;  // not owned
    ACmConnectorUpper& m_Upper;
    CCmInetAddr m_AddrPeer;
    CCmInetAddr m_AddrLocal;                 // CCmInetAddr::s_InetAddrAny: not given
    CCmRefPtrT<TransportType> m_pTransport;  // while an attempt runs
    BOOL m_bTimerArmed = FALSE;
    CmResult m_LaterReason = CM_OK;  // what the timer reports
};

extern template class TALVO_API CCmConnectorTcpT<CCmTransportTcp>;
using CCmConnectorTcp = CCmConnectorTcpT<CCmTransportTcp>;
