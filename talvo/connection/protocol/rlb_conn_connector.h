// Opens reliable connections.
#pragma once

#include "talvo/connection/protocol/conn_connector.h"
#include "talvo/connection/protocol/rlb_conn_tcp_client.h"

// As for other connections. Each one also gets the arguments of its attempt and the connector's socket options of that time,
// with which it connects again by itself.
template <>
class CConnConnectorT<CRlbConnTCPClient> final : public talvo::CConnConnectorBase {
public:
    // aType: the whole type.
    CConnConnectorT(CCmRefPtrT<ICmConnector> aLower, talvo::CConnectionType aType)
        : CConnConnectorBase(std::move(aLower)), m_Type(aType) {}

    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                     CCmInetAddr* aAddrLocal = nullptr) override {
        m_Target.m_dwBaseType = m_Type.GetBase();
        m_Target.m_AddrPeer = aAddrPeer;
        m_Target.m_bLocal = aAddrLocal != nullptr;
        if (aAddrLocal)
            m_Target.m_AddrLocal = *aAddrLocal;
        talvo::GetConnectOption(this, CM_OPT_TRANSPORT_SNDBUF, &m_Target.m_dwSendBuffer);
        talvo::GetConnectOption(this, CM_OPT_TRANSPORT_RCVBUF, &m_Target.m_dwReceiveBuffer);
        talvo::GetConnectOption(this, CM_OPT_TRANSPORT_READ_SIZE, &m_Target.m_dwReadSize);
        CConnConnectorBase::AsycConnect(aSink, aAddrPeer, aTimeout, aAddrLocal);
    }

private:
    talvo::COpeningConn MakeConnection() override {
        const CCmRefPtrT<CRlbConnTCPClient> pConn(new (std::nothrow) CRlbConnTCPClient);
        if (!pConn)
            return {};
        pConn->UseToken(m_Type.Has(talvo::CConnectionType::RECONNECT_TOKEN));
        pConn->SetTarget(m_Target);
        return talvo::MakeOpeningConn(pConn.Get());
    }

    const talvo::CConnectionType m_Type;
    CRlbTarget m_Target;  // of the last attempt
};
