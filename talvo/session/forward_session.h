// Forwards one stream of messages to many transports.
#pragma once

#include <cstdint>

#include "talvo/session/forward_statistics.h"
#include "talvo/transport/transport_interface.h"

// The behaviour of a receiver that has reached a limit of its lag, see CCmForwardReceiverOptions. The next Forward applies it
// at the latest, before it adds its message; the limit in milliseconds is applied also without a Forward.
enum ECmForwardPolicy : CmDword {
    // The receiver is removed with CM_ERROR_PARTIAL_DATA (10013).
    CM_FORWARD_DISCONNECT = 0,
    // The receiver continues with the newest messages that fill at most half of each limit; if the session has ever had a
    // KEY_MESSAGE, with the first of these that is one, or else with the next one that is forwarded. Those before are dropped.
    CM_FORWARD_DROP_OLDEST = 1,
    // A message whose key has a newer message is skipped, at all times and not only when late. Messages without a key are never
    // skipped, and only these count towards the limits: a receiver that they bring to a limit is removed as with DISCONNECT.
    CM_FORWARD_CONFLATE = 2,
    // Forward returns CM_ERROR_PARTIAL_DATA until the receiver is below its limits; OnForward comes at half of each. The
    // receiver loses no message, and holds back all other receivers of the session.
    CM_FORWARD_WAIT = 3
};

// The first message of a receiver. Replayed messages, those forwarded before AddReceiver, do not count towards its limits.
enum ECmForwardJoin : CmDword {
    CM_FORWARD_JOIN_NEXT = 0,  // the next message that is forwarded
    CM_FORWARD_JOIN_KEY = 1,   // the last KEY_MESSAGE if the log has it, else the next one that is forwarded
    // The newest message of each key, in the order of Forward, and then the next message. A receiver that has not got such a
    // message when the session forgets its key is removed with CM_ERROR_PARTIAL_DATA, also with WAIT; with DROP_OLDEST it
    // continues as at a limit.
    CM_FORWARD_JOIN_ALL_KEYS = 2,
    CM_FORWARD_JOIN_OLDEST = 3  // the oldest message of the log
};

// A receiver's options. It is at a limit when its lag, the messages that it is due and has not been sent, has reached it. 0: no
// limit. A single message may exceed the limit of bytes.
struct CCmForwardReceiverOptions {
    ECmForwardPolicy m_Policy = CM_FORWARD_DISCONNECT;  // at a limit
    ECmForwardJoin m_Join = CM_FORWARD_JOIN_NEXT;       // the first message
    CmDword m_dwMaxMessages = 0;                        // of the lag
    CmDword m_dwMaxBytes = 1 << 20;                     // of payload
    CmDword m_dwMaxMilliseconds = 0;                    // the age of the oldest such message
    CCmString m_strLabel = {};                          // for the dump; control and quotation marks become '?'
};

// Accompanies a message.
struct CCmForwardHeader {
    enum : CmDword {
        KEY_MESSAGE = 1  // a receiver can begin here: a whole picture, a snapshot
    };

    uint64_t m_ullKey = 0;  // the message replaces the earlier ones of this key; 0: it has no key
    CmDword m_dwFlags = 0;  // KEY_MESSAGE, or 0; other bits are ignored
};

// Commands of ICmForwardSession::SetOption; the argument points at a CmDword, at least 1 unless stated. A lower limit applies
// from the next Forward or AddReceiver.
enum ECmForwardOption : CmDword {
    CM_OPT_FORWARD_MAX_MESSAGE = 171,   // bytes of one message; 16 MiB at first
    CM_OPT_FORWARD_LOG_MESSAGES = 172,  // messages in the log; 65,536 at first, and at most
    CM_OPT_FORWARD_LOG_BYTES = 173,     // bytes of payload in the log; 64 MiB at first. Half of them at most are
                                        // messages that the log keeps only for their keys: then keys are forgotten
    CM_OPT_FORWARD_KEYS = 174,          // keys; 65,536 at first, and at most
    CM_OPT_FORWARD_RECEIVERS = 175,     // receivers; 65,535 at first, and at most
    // Messages that the log keeps for later receivers, although no present one needs them; 65,536 at first: as many as the log
    // can have. 0: none, so JOIN_KEY and JOIN_OLDEST begin with messages that a present receiver still needs, or with the next.
    CM_OPT_FORWARD_HISTORY = 176
};

// The user of a session implements it. All calls come from the loop of the session's thread (a proxy's: of the thread that
// created it), never from inside a call of the session. Inside each call every operation of the session is allowed, and the
// release.
class TALVO_API ICmForwardSink {
public:
    // The receiver is gone, and its transport is closed and released. aReason: that of the transport's OnDisconnect or the
    // result of its SendData; CM_ERROR_PARTIAL_DATA: its policy has removed it. CM_ERROR_INVALID_ARG: it was due a message
    // that is longer than its transport can take, forwarded before AddReceiver. Does not come after a RemoveReceiver or a Close
    // that has returned CM_OK.
    virtual void OnReceiver(CmDword aId, CmResult aReason) = 0;

    // Forward has returned CM_ERROR_PARTIAL_DATA; now it can take messages again. One call for any number of such returns.
    virtual void OnForward() = 0;

    // Comes once after AddReceiver, before the first message to this receiver, unless it was removed or its transport has
    // ended before. Inside it the user may send data of his own to
    // the transport, which precedes the messages; data that the transport refuses here stays the user's loss.
    virtual void OnJoin(CmDword aId) = 0;

    virtual ~ICmForwardSink();
};

//            Forward
//               |
//               v
//    [ log of messages, oldest ... newest ]       one for all receivers, by reference
//        ^            ^          ^   ^
//        |            |          |   |            each receiver is a position in the log, its cursor
//     receiver 1   receiver 2  receivers 3, 4     and is served when its transport can take data
//
// Each message is handed over once; each receiver gets it at its own pace. A slow receiver slows neither the producer nor other
// receivers, unless its policy is WAIT. It costs its cursor and references to the messages of its lag.
//
// Order: each receiver gets a subsequence of the forwarded messages in their order, each message whole. A message begun on a
// stream is always finished. On a raw stream (TCP, TLS) the bytes of the messages follow each other as they are; on a raw
// datagram transport each message is a datagram; a protocol connection keeps messages apart.
//
// Messages leave from the loop, after the current event, many with one system call. A Forward that completes 1,024 messages or
// 64 KiB since the last turn sends at once.
//
// CCmConnectionManager::CreateForwardSession makes it. In the network thread, all operations and calls are in that thread. In
// any other thread it makes a proxy: Forward may then be called from any thread, and each thread's order holds; it takes
// messages until 1 MiB waits for the network thread. AddReceiver and Close first forward the waiting messages; one that a WAIT
// receiver holds back counts as forwarded later. All operations but Forward wait for the network thread; Forward waits only
// before it refuses a message as too long. After the end of the network thread they return CM_ERROR_NOT_AVAILABLE. The last
// release closes the session as Close(CM_OK) does.
//
// A Forward wakes the network thread if that sleeps. Inside an event or a timer of a thread with a loop, the thread is woken
// once: when the due events or timers have run, or as soon as 32 KiB wait. A callback that takes long thus delays its messages,
// by at most a tick of the network thread (10 ms).
class TALVO_API ICmForwardSession : public ICmReferenceControl {
public:
    // Adds a receiver, and takes aTransport: the session holds a reference, sends, and finally disconnects and releases it.
    // Open it before. OnReceive, OnDisconnect and pauses stay as they are: with the user's sink and the user's options. The
    // user does not open or disconnect it any more, and sends only inside OnJoin. SendData of a thread proxy is refused with
    // CM_ERROR_NOT_AVAILABLE from the end of OnJoin on.
    //
    // aTransport belongs to the session's thread, or is a thread proxy, whose transport in the network thread is used. aId
    // (out): the receiver, never 0. CM_ERROR_INVALID_ARG: aTransport is null, is not open yet, or is of another thread than
    // the session; or an unknown policy or join point. CM_ERROR_FOUND: it is a receiver of a session.
    // CM_ERROR_NULL_POINTER: aTransport is closed, or has ended. CM_ERROR_PARTIAL_DATA: the session has as many receivers as it
    // may have. CM_ERROR_NOT_AVAILABLE: the session is closed. CM_ERROR_OUT_OF_MEMORY. On any failure the transport stays the
    // user's.
    virtual CmResult AddReceiver(ICmTransport* aTransport, const CCmForwardReceiverOptions& aOptions, CmDword& aId) = 0;

    // Disconnects its transport with aReason and releases it. Messages of its lag are not sent; no OnReceiver follows.
    // CM_ERROR_NOT_FOUND: there is no such receiver, perhaps any more. CM_ERROR_NOT_AVAILABLE: the session is closed.
    virtual CmResult RemoveReceiver(CmDword aId, CmResult aReason) = 0;

    // Takes the whole message, and consumes aData, or nothing. Beyond 1 KiB the blocks are shared, so the payload must not
    // change any more; a smaller payload is copied once for all receivers. aHeader null: no key, no flags.
    // CM_OK: also without receivers. An empty message is CM_OK and is not forwarded. CM_ERROR_INVALID_ARG: longer than
    // CM_OPT_FORWARD_MAX_MESSAGE or than a message of a receiver's transport may be (CM_OPT_TRANSPORT_MAX_MESSAGE; 65,507 for
    // datagrams). CM_ERROR_PARTIAL_DATA: a WAIT receiver is at its limit, or 1 MiB waits in the proxy; OnForward follows.
    // CM_ERROR_NOT_AVAILABLE: the session is closed. CM_ERROR_OUT_OF_MEMORY: not taken.
    virtual CmResult Forward(CCmMessageBlock& aData, const CCmForwardHeader* aHeader = nullptr) = 0;

    // See ECmForwardOption. CM_ERROR_INVALID_ARG: an unknown command, a null argument, or a value out of range.
    // CM_ERROR_NOT_AVAILABLE: the session is closed.
    virtual CmResult SetOption(CmDword aCommand, void* aArg) = 0;

    // aStatistics (out): those of a receiver, or with aId 0 the sum of all receivers, present and gone, except that the lag is
    // that of the present ones, its age and the longest lag the greatest of any receiver. CM_ERROR_NOT_FOUND: there is no such
    // receiver. The sum stays available after Close. CM_ERROR_NOT_AVAILABLE: the network thread has ended.
    virtual CmResult GetStatistics(CCmForwardStatistics& aStatistics, CmDword aId = 0) = 0;

    // One line for the session and one for each receiver, with its label in quotation marks. Empty: memory ran out, or the
    // session is closed.
    virtual CCmString Dump() = 0;

    // Disconnects and releases all transports with aReason. CM_OK: messages that the transports can take now are sent before.
    // All others are lost: look at the lag before. No upcall follows. CM_ERROR_NOT_AVAILABLE: it is closed already.
    virtual CmResult Close(CmResult aReason) = 0;
};
