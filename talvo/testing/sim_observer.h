// A view of the traffic between transports and a simulated network.
#pragma once

#include <string>

#include "talvo/base/inet_addr.h"
#include "talvo/base/message_block.h"

// The current state of one end of a simulated connection.
struct CCmSimEnd {
    CCmInetAddr m_AddrLocal;         // of this end
    CCmInetAddr m_AddrPeer;          // of the other end
    CmBool m_bDatagrams = CM_FALSE;  // it is no stream
    CmBool m_bAccepted = CM_FALSE;   // made by an acceptor
    CmBool m_bOwesSend = CM_FALSE;   // a SendData returned CM_ERROR_PARTIAL_DATA, and OnSend is due
    CmBool m_bBroken = CM_FALSE;     // the stream was cut, and OnDisconnect is due
    CmDword m_dwUnread = 0;          // bytes of a stream that this end has sent and the peer has not read
};

// For tests that check the wire: the bytes of protocol connections below the messages of their users. All calls come in the
// simulation's thread from inside it. They may read the simulation and call Note and Fail, and no other function of the
// library. A method does nothing unless overridden.
class ICmSimObserver {
public:
    virtual void OnConnect(const CCmInetAddr& /*aLocal*/, const CCmInetAddr& /*aPeer*/) {}  // an attempt begins
    virtual void OnOpen(const CCmSimEnd&) {}                                                // the first call of OpenWithSink
    virtual void OnSend(const CCmSimEnd&, const CCmMessageBlock&) {}  // a call of SendData, before it takes data
    virtual void OnReceive(const CCmSimEnd&, const std::string&) {}   // before the sink's OnReceive,
    virtual void OnReceived(const CCmSimEnd&, const std::string&) {}  // and after it; the end may be closed then
    // aByOwner: the user has closed it; otherwise the peer or the link.
    virtual void OnClose(const CCmSimEnd&, CmBool /*aByOwner*/) {}
    virtual void OnStopListen(const CCmInetAddr&) {}  // an acceptor stops
    // No code of the application is running: a timer, an event or an arrival has been handled. Check invariants here.
    virtual void OnStep() {}
    virtual ~ICmSimObserver() = default;
};
