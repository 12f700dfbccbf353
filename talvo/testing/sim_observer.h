// A view of the traffic between transports and a simulated network.
#pragma once

#include <string>

#include "talvo/base/inet_addr.h"

// One end of a simulated connection, as it is now.
struct CCmSimEnd {
    CCmInetAddr m_AddrLocal;
    CCmInetAddr m_AddrPeer;
    BOOL m_bDatagrams = FALSE;
    BOOL m_bAccepted = FALSE;  // made by an acceptor
    BOOL m_bOwesSend = FALSE;  // a SendData returned CM_ERROR_PARTIAL_DATA, and OnSend has not come
    BOOL m_bBroken = FALSE;    // the stream was cut, and OnDisconnect is on its way
    DWORD m_dwUnread = 0;      // bytes of a stream that this end has sent and the peer has not read
};

// Implemented by tests that check the wire: the bytes of protocol connections below the messages of their users.
// All calls come in the simulation's thread from inside it. They may read the simulation and call Note and Fail, and nothing
// else of the library. A method does nothing unless overridden.
class ICmSimObserver {
public:
    virtual void OnOpen(const CCmSimEnd&) {}                          // OpenWithSink was called, for the first time
    virtual void OnSend(const CCmSimEnd&, const std::string&) {}      // SendData was called; before anything is taken
    virtual void OnReceive(const CCmSimEnd&, const std::string&) {}   // before the sink's OnReceive,
    virtual void OnReceived(const CCmSimEnd&, const std::string&) {}  // and behind it; the end may be closed by then
    // aByOwner: the user has closed it; otherwise the peer or the link has.
    virtual void OnClose(const CCmSimEnd&, BOOL /*aByOwner*/) {}
    virtual void OnStopListen(const CCmInetAddr&) {}
    // No code of the application is running: a timer, an event or an arrival has been handled. The place to check invariants.
    virtual void OnStep() {}
    virtual ~ICmSimObserver() = default;
};
