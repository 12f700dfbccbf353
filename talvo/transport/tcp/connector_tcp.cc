#include "talvo/transport/tcp/connector_tcp.h"

#include <new>
#include <utility>

#include "talvo/base/trace.h"

template <class TransportType>
std::unique_ptr<ACmConnectorInternal> CCmConnectorTcpT<TransportType>::Make(const CCmConnectorSettings& aSettings) {
    return std::unique_ptr<ACmConnectorInternal>(new (std::nothrow) CCmConnectorTcpT(aSettings));
}

template <class TransportType>
int CCmConnectorTcpT<TransportType>::ConnectTo_i(std::vector<CCmInetAddr> aAddrs) {
    CCmRefPtrT<TransportType> pTransport;
    const int nRv = m_Race.Run(std::move(aAddrs), m_AddrLocal, m_Sockets.WithConfiguration(), pTransport);
    if (nRv != 0) {
        m_Failure = m_Race.GetFailure();
        if (nRv == 1 || m_Race.GetRefusal() == CM_OK)
            return nRv;
        StopLookUp_i();
        return ReportLater_i(m_Race.GetRefusal());
    }
    CM_WARNING_TRACE_THIS("CCmConnectorTcpT::Connect, connect return 0.");
    m_pTransport = pTransport;
    StopLookUp_i();
    return ReportLater_i(CM_OK);
}

template <class TransportType>
void CCmConnectorTcpT<TransportType>::OnRaceDone(CCmRefPtrT<TransportType> aTransport) {
    m_pTransport = aTransport;
    m_Failure = m_Race.GetFailure();
    if (m_pTransport || m_Race.GetRefusal() != CM_OK)
        Report_i(m_pTransport ? CM_OK : m_Race.GetRefusal());
    else
        ReportFailure_i();
}

template <class TransportType>
void CCmConnectorTcpT<TransportType>::Close() {
    m_Race.Stop();
    CResolvingConnector::Close();
}

template class CCmConnectorTcpT<CCmTransportTcp>;
