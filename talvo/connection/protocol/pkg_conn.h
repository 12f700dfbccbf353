// What the two sides of a package connection share.
#pragma once

#include "talvo/connection/protocol/cs_conn.h"

//   client                                   server
//     |------- connect request (1) --------->|   answered when the acceptor's sink has been told
//     |<------ connect response (2) ---------|
//     |<------ data (6), keep-alive (4) ---->|   data PDUs in the 5-byte form: nothing is acknowledged, so the send buffer
//     |------- disconnect (3) -------------->|   empties as the transport takes the data
//
// Messages of at most 65,531 bytes at first (CS_OPT_MAX_BUFF_LEN raises that), over a stream in order and none lost while the
// connection stands, over datagrams each whole or not at all.
//
// A client disconnects a peer from which nothing has come for 120 s, with keep-alives or without: over a connection without
// them (CTYPE_PDU_KEEPALIVE at the server's end) the server has to say something now and then, or it is dropped. A server does
// so only with keep-alives of its own. The reason is CM_ERROR_NETWORK_CONNECT_TIMEOUT (20005).
class TALVO_API CPkgConn : public CCsConn, public ICmAcceptorConnectorSink {
public:
    // Tells the peer and closes the transport below. With CM_OK what the transport has not taken yet, the notice last, goes out
    // first, for at most LingerSeconds (CTransportLinger); over datagrams and with any other reason it is lost. No upcall
    // follows. The transport's result; CM_OK when the connection lingers or had ended.
    CmResult Disconnect(CmResult aReason) override;

protected:
    explicit CPkgConn(BYTE aInstanceType);

    // The transport below is lost, or the peer has asked for the end.
    void Lost_i(CmResult aReason);

    // The liveness timer has fired: sends a keep-alive that is due, and ends the connection to a silent peer. aWhere: for the
    // trace.
    void LookAtPeer_i(const char* aWhere);

    DWORD m_dwStartTick;

    // Milliseconds since the object was made, for the trace.
    DWORD GetAge_i() const;
};
