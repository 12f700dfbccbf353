// What a reliable connection reports about the gaps in its network.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

class ICmTransport;

// Commands of reliable connections, in addition to ECmTransportOption; also through a thread proxy.
enum ECmReconnectOption : CmDword {
    CM_OPT_TRANSPORT_RECONNECT_SINK = 140,   // set ICmReconnectSink*: not owned; null, the default: none
    CM_OPT_TRANSPORT_RECONNECT_STATUS = 150  // [waits] get CCmReconnectStatus
};

// Since the connection was opened.
struct CCmReconnectStatus {
    CmBool m_bSuspended = CM_FALSE;           // a gap is under way
    CmDword m_dwResumed = 0;                  // times
    uint64_t m_ullSentAgain = 0;              // bytes of data PDUs, headers included
    uint64_t m_ullSuspendedMilliseconds = 0;  // in all, without the gap under way
};

// Calls alternate, and come in order with OnReceive in the thread of the transport's upcalls. None comes after the end. Inside
// any call the user may send, set options, disconnect and release the transport.
class TALVO_API ICmReconnectSink {
public:
    // The network is away: data that SendData takes waits. aReason: of the transport below, CM_ERROR_NETWORK_CONNECT_TIMEOUT
    // after silence.
    virtual void OnSuspended(ICmTransport* aTrptId, CmResult aReason) = 0;
    // The connection continues, aMilliseconds after it was suspended.
    virtual void OnResumed(ICmTransport* aTrptId, CmDword aMilliseconds) = 0;

protected:
    virtual ~ICmReconnectSink() = default;
};
