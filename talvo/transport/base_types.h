// The table of base types and the makers of their connectors and acceptors.
#pragma once

#include <memory>
#include <span>

#include "talvo/base/ref_ptr.h"
#include "talvo/transport/connector_internal.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {
class IHandshakeMaker;
}

// The arguments of a maker.
struct CCmConnectorSettings {
    CmDword m_dwType;                                            // the requested base type; one maker may serve several
    ICmReactor* m_pReactor;                                      // of the network thread; never null
    ACmConnectorUpper* m_pUpper;                                 // gets the connector's reports; never null, and outlives it
    std::shared_ptr<talvo::IHandshakeMaker> m_pHandshakes = {};  // for TCP; null: there are no handshakes
};
// The arguments of a maker of acceptors.
struct CCmAcceptorSettings {
    CmDword m_dwType;                                            // likewise
    ICmReactor* m_pReactor;                                      // of the network thread; null: none
    std::shared_ptr<talvo::IHandshakeMaker> m_pHandshakes = {};  // likewise
};

// Both are called in the network thread. Null: memory ran out.
using CCmConnectorMaker = std::unique_ptr<ACmConnectorInternal> (*)(const CCmConnectorSettings& aSettings);
using CCmAcceptorMaker = CCmRefPtrT<ICmAcceptor> (*)(const CCmAcceptorSettings& aSettings);

// A null maker: that side of the type is not offered.
struct CCmBaseTypeMakers {
    CCmConnectorMaker m_Connector = nullptr;  // null: no connectors
    CCmAcceptorMaker m_Acceptor = nullptr;    // null: no acceptors
};

// Offers makers for a base type: a new one, or one of the library's, whose own makers apply again after a withdrawal. The last
// offer of a type counts. An offer without makers withdraws the previous one. Existing objects do not change. Any thread.
// CM_ERROR_INVALID_ARG: 0, more than 0xFFFF, or 0x8001. CM_ERROR_NOT_AVAILABLE: 16 other types have offers.
//
// The objects of the makers belong to the network thread, which makes, uses and destroys them. Their transports fulfil the
// contract of ICmTransport, and have these options:
//
//   PAUSE_READING (141)                 a thread proxy pauses a fast peer with it: without it the proxy's memory has no limit
//   UNACKNOWLEDGED (144)                an orderly end waits until it is 0; a refusal counts as 0, so the end does not wait
//   END_SENDING (147), TELL_END (148)   of a byte stream; both are also set while an orderly end waits
//   LAYERED (160)                       TRUE: the transport does not join a drain, because the layer above does
//   LOCAL_ADDR, PEER_ADDR, TRAN_TYPE    read once by a thread proxy; the last one is the base type
//   LAST_FAILURE (159)                  inside and after OnDisconnect
//
// The others may be refused with CM_ERROR_INVALID_ARG. After CM_ERROR_PARTIAL_DATA of SendData one OnSend follows from the
// loop. CM_ERROR_OUT_OF_MEMORY of SendData ends a connection with a proxy. Disconnect(CM_OK) loses no byte that SendData took,
// even if received bytes are unread.
//
// CCmConnectionManager accepts the type from then on, alone and below a protocol. Every base type but 2 carries bytes: its
// transports may take a part of a send (CM_ERROR_PARTIAL_DATA), and may split or join the delivered bytes.
TALVO_API CmResult cm_offer_base_type(CmDword aType, const CCmBaseTypeMakers& aMakers);

// aMakers (out): the makers of a base type. CM_ERROR_INVALID_ARG: there is no such type. Any thread.
TALVO_API CmResult cm_get_base_type(CmDword aType, CCmBaseTypeMakers& aMakers);

namespace talvo {

struct CBaseType {
    CmDword m_dwType;
    CCmBaseTypeMakers m_Makers;
    CmBool m_bOverTcp = CM_FALSE;
};

// A room above fills it once, before main: the connectors of the types 1, 4, 8, 12 and 0x8000, which use proxy servers.
void SetOwnConnectorMaker(CCmConnectorMaker aMaker);

// The library's own, as they are without that maker. The list is above the rooms that make transports:
// talvo/connection/own_base_types.cc.
std::span<const CBaseType> GetOwnBaseTypes();

}  // namespace talvo
