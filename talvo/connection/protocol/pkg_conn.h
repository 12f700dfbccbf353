// The common part of the two sides of a package connection.
#pragma once

#include "talvo/connection/protocol/cs_conn.h"

//   client                                   server
//     |------- connect request (1) --------->|   answered after the call of the acceptor's sink
//     |<------ connect response (2) ---------|
//     |<------ data (6), keep-alive (4) ---->|   data PDUs in the 5-byte form: nothing is acknowledged, so the send buffer
//     |------- disconnect (3) -------------->|   empties as the transport takes the data
//
// Messages have at most 65,531 bytes at first (CS_OPT_MAX_BUFF_LEN raises that). Over a stream they are in order, and none is
// lost while the connection stands. Over datagrams each arrives whole or not at all.
//
// A client disconnects a peer after 120 s without data, with keep-alives or without. If the server's end has no keep-alives
// (CTYPE_PDU_KEEPALIVE), the server must send data from time to time. A server disconnects a silent peer only with keep-alives
// of its own. The reason is CM_ERROR_NETWORK_CONNECT_TIMEOUT (20005).
class TALVO_API CPkgConn : public CCsConn, public ICmAcceptorConnectorSink {
public:
    // Notifies the peer and closes the transport below. With CM_OK the bytes that the transport has not taken yet are sent
    // first, the notification last, for at most LingerSeconds (CTransportLinger). Over datagrams and with any other reason they
    // are lost. No upcall follows. The transport's result; CM_OK if the connection lingers or had ended.
    CmResult Disconnect(CmResult aReason) override;

protected:
    explicit CPkgConn(CmByte aInstanceType);

    // The transport below is lost, or the peer has sent a disconnect.
    void Lost_i(CmResult aReason);

    // The liveness timer has fired: sends a keep-alive that is due, and ends the connection to a silent peer. aWhere: for the
    // trace.
    void LookAtPeer_i(const char* aWhere);

    CmDword m_dwStartTick;

    // Milliseconds since the object's construction, for the trace.
    CmDword GetAge_i() const;
};
