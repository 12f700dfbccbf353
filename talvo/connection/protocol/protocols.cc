#include "talvo/connection/protocol/protocols.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include "talvo/connection/protocol/conn_acceptor.h"
#include "talvo/connection/protocol/conn_connector.h"
#include "talvo/connection/protocol/len_pkg_conn.h"
#include "talvo/connection/protocol/pkg_conn_client.h"
#include "talvo/connection/protocol/pkg_conn_server.h"
#include "talvo/connection/protocol/pkg_sender.h"
#include "talvo/connection/protocol/rlb_conn_acceptor.h"
#include "talvo/connection/protocol/rlb_conn_connector.h"

namespace talvo {

namespace {

// Maker is a CConnConnectorT or CConnAcceptorT; Interface is the interface that it implements and uses.
template <class Maker, class Interface>
CCmRefPtrT<Interface> Make(CCmRefPtrT<Interface> aLower, CConnectionType aType) {
    return new (std::nothrow) Maker(std::move(aLower), aType.Has(CConnectionType::KEEPALIVE));
}

// The connections of these need more of the type.
template <class Maker, class Interface>
CCmRefPtrT<Interface> MakeWithType(CCmRefPtrT<Interface> aLower, CConnectionType aType) {
    return new (std::nothrow) Maker(std::move(aLower), aType);
}

using CType = CConnectionType;

constexpr CProtocol PROTOCOLS[] = {
    {CType::RELIABLE, CType::CANONICAL_RELIABLE, "CTYPE_PDU_RELIABLE", FALSE, FALSE, FALSE,
     MakeWithType<CConnConnectorT<CRlbConnTCPClient>>, MakeWithType<CConnAcceptorT<CRlbConnTCPServer>>},
    {CType::NO_PARTIAL_DATA, CType::NO_PARTIAL_DATA, "CTYPE_SEND_NO_PARTIAL_DATA", FALSE, TRUE, TRUE,
     Make<CConnConnectorT<CPkgSender>>, Make<CConnAcceptorT<CPkgSender>>},
    {CType::PACKAGE, CType::PACKAGE, "CTYPE_PDU_PACKAGE", TRUE, FALSE, TRUE, Make<CConnConnectorT<CPkgConnClient>>,
     Make<CConnAcceptorT<CPkgConnServer>>},
    {CType::LENGTH, CType::LENGTH, "CTYPE_PDU_LENGTH", FALSE, TRUE, FALSE, Make<CConnConnectorT<CLenPkgConn>>,
     Make<CConnAcceptorT<CLenPkgConn>>},
};

}  // namespace

const CProtocol* CProtocol::Find(CConnectionType aType) {
    const auto row = std::ranges::find_if(PROTOCOLS, [=](const CProtocol& a) { return aType.Has(a.m_dwFlags); });
    return row != std::end(PROTOCOLS) ? row : nullptr;
}

}  // namespace talvo
