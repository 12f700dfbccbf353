// The messages that the receivers of a forward session must get, from the list of its forwards: a queue for each receiver.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "talvo/session/forward_session.h"

// Slow and plain. It follows a session by the results of Forward and the statistics of its receivers: these say how many
// messages were sent and when; the model says which ones, and all other numbers. Times are those of get_tick_count.
//
//    model.SetLimits(messages, bytes, keys);           if the session has others than it begins with
//    model.Add(id, options);
//    model.Look(session, tick);                        before each change
//    model.OnForward(session, rv, length, header, tick)  after a Forward, or when a proxy's message has left its queue
//    model.GetFailure()                                "": the session did what it must
class CCmSimForwardModel {
public:
    // What a receiver must get.
    struct CReceiver {
        CCmForwardReceiverOptions m_Options;  // those of AddReceiver
        std::deque<uint64_t> m_Queue;         // the numbers of the messages that are due and not sent; the first message is 0
        CCmForwardCount m_Lag;                // of the queue
        CCmForwardCount m_LimitedLag;         // of those in the queue that count towards the limits
        std::vector<uint64_t> m_Numbers;      // of those that were sent
        CCmForwardCount m_Due;                // as in CCmForwardStatistics
        CCmForwardCount m_Sent;               // as in CCmForwardStatistics
        CCmForwardCount m_Dropped;            // as in CCmForwardStatistics
        CCmForwardCount m_Conflated;          // as in CCmForwardStatistics
        uint64_t m_ullJoined = 0;             // the number of the first message that it was too early for
        CmBool m_bJoined = CM_FALSE;          // its OnJoin is over: before, no limit applies
        CmBool m_bAwaitsKey = CM_FALSE;       // it drops all messages until a KEY_MESSAGE,
        CmBool m_bDueFromKey = CM_FALSE;      // which are not even due
        CmBool m_bGone = CM_FALSE;            // its policy has removed it
        CmBool m_bLost = CM_FALSE;            // and it had a reason
        CCmForwardStatistics m_Seen;          // the last ones of the session; as new after its end
        CmBool m_bMatched = CM_FALSE;         // they agree with all of this
    };

    // The session's CM_OPT_FORWARD_LOG_MESSAGES, CM_OPT_FORWARD_LOG_BYTES and CM_OPT_FORWARD_KEYS; before the first message.
    void SetLimits(CmDword aMessages, CmDword aBytes, CmDword aKeys) { m_Limits = {aMessages, aBytes, aKeys}; }

    // A receiver was added; its OnJoin is over.
    void Add(CmDword aId, const CCmForwardReceiverOptions& aOptions);
    void Join(CmDword aId) { m_Receivers[aId].m_bJoined = CM_TRUE; }
    // The receiver was removed, or its transport has ended.
    void Remove(CmDword aId) { m_Receivers.erase(aId); }
    // Takes over what was sent since the last call, and compares all numbers.
    void Look(ICmForwardSession& aSession, CmDword aTick);

    // A receiver that has joined, was never refused and had a lag at the last Look; 0: there is none.
    CmDword FindLagging() const;

    // A Forward has returned aResult. aLate: receivers may have been sent messages since the last Look.
    void OnForward(ICmForwardSession& aSession, CmResult aResult, CmDword aLength, const CCmForwardHeader& aHeader,
                   CmDword aTick, CmBool aLate = CM_FALSE);

    // The messages: the number of the next one, and the length of one.
    uint64_t GetNextNumber() const { return m_Messages.size(); }
    CmDword GetLength(uint64_t aNumber) const { return m_Messages[aNumber].m_dwLength; }
    // Null: there is none.
    const CReceiver* Find(CmDword aId) const;
    // TRUE: a limit of the receiver is reached, so that its policy may act.
    CmBool IsAtLimit(const CReceiver& aReceiver, CmDword aTick) const;
    // The numbers of a receiver, for a report.
    std::string Describe(CmDword aId) const { return Find(aId) ? Difference_i(*Find(aId)) : ""; }
    const std::string& GetFailure() const { return m_strFailure; }  // "": there is none

private:
    struct CMessage {
        uint64_t m_ullKey;
        CmDword m_dwFlags;
        CmDword m_dwLength;
        CmDword m_dwTick;
        CmBool m_bReplaced = CM_FALSE;  // a newer message has its key
    };
    struct CLimits {
        CmDword m_dwMessages = 65536;
        CmDword m_dwBytes = 64 << 20;
        CmDword m_dwKeys = 65536;
    };
    // The log loses a message, which a receiver may still need, or forgets the key of one.
    struct CLoss {
        uint64_t m_ullNumber;
        uint64_t m_ullBeyond;  // DROP_OLDEST continues there at least
        CmBool m_bKey;
        CmBool m_bSpared;  // it is no loss with CONFLATE
    };

    // A Forward.
    struct CTry {
        CmResult m_Result;
        CmDword m_dwTick;
        uint64_t m_ullReplaced = UINT64_MAX;  // by it
        CmBool m_bHadKeyMessage = CM_FALSE;   // before it
        CmBool m_bLate = CM_FALSE;            // receivers may have been sent messages before it
        std::vector<CLoss> m_Before = {}, m_After = {};
    };

    CmBool IsFull_i(CmDword aLength) const;
    template <class CJudge>
    CmBool AnyWaiting_i(ICmForwardSession& aSession, CJudge aJudge) const;
    CmBool IsWaitedFor_i(ICmForwardSession& aSession, const CLoss& aLoss) const;
    CmBool MakeRoom_i(ICmForwardSession& aSession, CmDword aLength, CTry& aTry);
    void BoundKept_i(std::vector<CLoss>& aLosses);
    void ForgetKey_i(std::vector<CLoss>& aLosses);
    uint64_t Append_i(const CMessage& aMessage);
    CmBool Needs_i(const CReceiver& aReceiver, const CLoss& aLoss) const;
    CmBool HasReason_i(const CReceiver& aReceiver, const CTry& aTry) const;
    CmBool TakeLosses_i(CReceiver& aReceiver, const std::vector<CLoss>& aLosses, CmDword aTick, CmBool aHadKeyMessage) const;
    void Fail_i(CmDword aId, const std::string& aText);
    CmBool IsFirstOld_i(const CReceiver& aReceiver, CmDword aTick) const;
    CmBool IsLimited_i(const CReceiver& aReceiver, uint64_t aNumber) const;
    void Enqueue_i(CReceiver& aReceiver, uint64_t aNumber) const;
    void Dequeue_i(CReceiver& aReceiver, std::deque<uint64_t>::const_iterator aPlace) const;
    void PopSent_i(CReceiver& aReceiver, uint64_t aCount) const;
    void DropFirst_i(CReceiver& aReceiver) const;
    void DropOldest_i(CReceiver& aReceiver, CmDword aTick, CmBool aHadKeyMessage, uint64_t aBeyond = 0) const;
    void Push_i(CReceiver& aReceiver, uint64_t aNumber, uint64_t aReplaced) const;
    CmBool Matches_i(CReceiver& aReceiver, const CCmForwardStatistics& aStatistics) const;
    std::string Difference_i(const CReceiver& aReceiver) const;
    CmBool TryForward_i(CReceiver& aReceiver, const CCmForwardStatistics* aStatistics, const CTry& aTry) const;
    CmBool TryAfter_i(CReceiver& aReceiver, uint64_t aBefore, const CCmForwardStatistics& aStatistics, const CTry& aTry) const;

    CLimits m_Limits;
    std::vector<CMessage> m_Messages;
    uint64_t m_ullBegin = 0;                // of the log
    CCmForwardCount m_Held, m_Kept;         // by the log; and of that, only for their keys
    std::map<uint64_t, uint64_t> m_Newest;  // of each key
    uint64_t m_ullLastKeyMessage = UINT64_MAX;
    std::map<CmDword, CReceiver> m_Receivers;
    std::string m_strFailure;
};
