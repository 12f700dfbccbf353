// Opens reliable connections.
#pragma once

#include "talvo/connection/protocol/conn_connector.h"
#include "talvo/connection/protocol/rlb_conn_tcp_client.h"
#include "talvo/transport/option_values.h"

// As for other connections. Each one also gets the arguments of its attempt and the connector's options of that time, with
// which it connects again by itself.
template <>
class CConnConnectorT<CRlbConnTCPClient> final : public talvo::CConnConnectorBase {
public:
    // aType: the whole type.
    CConnConnectorT(CCmRefPtrT<ICmConnector> aLower, talvo::CConnectionType aType)
        : CConnConnectorBase(std::move(aLower)), m_Type(aType) {}

    CmResult SetOption(DWORD aCommand, void* aArg) override {
        const CmResult rv = CConnConnectorBase::SetOption(aCommand, aArg);
        return rv == CM_OK ? m_Options.Set(aCommand, aArg) : rv;
    }
    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                     CCmInetAddr* aAddrLocal = nullptr) override {
        m_Target.m_dwBaseType = m_Type.GetBase();
        m_Target.m_AddrPeer = aAddrPeer;
        m_Target.m_bLocal = aAddrLocal != nullptr;
        if (aAddrLocal)
            m_Target.m_AddrLocal = *aAddrLocal;
        CConnConnectorBase::AsycConnect(aSink, aAddrPeer, aTimeout, aAddrLocal);
    }

private:
    talvo::COpeningConn MakeConnection() override {
        const CCmRefPtrT<CRlbConnTCPClient> pConn(new (std::nothrow) CRlbConnTCPClient);
        if (!pConn)
            return {};
        pConn->UseToken(m_Type.Has(talvo::CConnectionType::RECONNECT_TOKEN));
        if (!talvo::WithMemory([this] { m_Target.m_pOptions = std::make_shared<const talvo::COptionValues>(m_Options); }))
            return {};
        pConn->SetTarget(m_Target);
        return talvo::MakeOpeningConn(pConn.Get());
    }

    const talvo::CConnectionType m_Type;
    talvo::COptionValues m_Options{m_Type.GetBase(), TRUE};
    CRlbTarget m_Target;  // of the last attempt
};
