// Accepts reliable connections.
#pragma once

#include "talvo/connection/protocol/conn_acceptor.h"
#include "talvo/connection/protocol/rlb_conn_tcp_server.h"

// As for other connections; a transport with a request for an existing channel continues that connection instead. StopListen
// leaves the connections and their channels, and after another StartListen lost clients may come back. The last release ends
// the lost connections, and those that are up end when they are lost, with CM_ERROR_NETWORK_PEER_NOT_BACK.
template <>
class CConnAcceptorT<CRlbConnTCPServer> final : public talvo::CConnAcceptorBase {
public:
    // aType: the whole type.
    CConnAcceptorT(CCmRefPtrT<ICmAcceptor> aLower, talvo::CConnectionType aType)
        : CConnAcceptorBase(std::move(aLower)), m_Type(aType) {
        talvo::WithMemory([this] { m_pChannels = std::make_shared<talvo::CReliableChannels>(); });
    }
    ~CConnAcceptorT() override {
        if (m_pChannels)
            m_pChannels->Close();
    }

private:
    talvo::COpeningConn MakeConnection() override {
        const CCmRefPtrT<CRlbConnTCPServer> pConn(new (std::nothrow) CRlbConnTCPServer);
        if (!pConn || !m_pChannels)
            return {};
        pConn->UseToken(m_Type.Has(talvo::CConnectionType::RECONNECT_TOKEN));
        pConn->SetChannels(m_pChannels);
        return talvo::MakeOpeningConn(pConn.Get());
    }

    const talvo::CConnectionType m_Type;
    std::shared_ptr<talvo::CReliableChannels> m_pChannels;  // shared with the connections; null: memory ran out
};
