// The messages that the receivers of a forward session must get, from the list of its forwards: a queue for each receiver.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "talvo/session/forward_session.h"

// Slow and plain. It follows a session by the results of Forward and the statistics of its receivers: these say how many
// messages were sent and when; the model says which ones, and all other numbers. Times are those of get_tick_count. The log of
// the session must be large enough for all messages.
//
//    model.Add(id, options);
//    model.Look(session, tick);                        before each change
//    model.OnForward(session, rv, length, header, tick)  after a Forward
//    model.GetFailure()                                "": the session did what it must
class CCmSimForwardModel {
public:
    // What a receiver must get.
    struct CReceiver {
        CCmForwardReceiverOptions m_Options;  // those of AddReceiver
        std::deque<uint64_t> m_Queue;         // the numbers of the messages that are due and not sent; the first message is 0
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
    };

    // A receiver was added; its OnJoin is over.
    void Add(CmDword aId, const CCmForwardReceiverOptions& aOptions);
    void Join(CmDword aId) { m_Receivers[aId].m_bJoined = CM_TRUE; }
    // The receiver was removed, or its transport has ended.
    void Remove(CmDword aId) { m_Receivers.erase(aId); }
    // Takes over what was sent since the last call, and compares all numbers.
    void Look(ICmForwardSession& aSession, CmDword aTick);

    // A Forward has returned aResult.
    void OnForward(ICmForwardSession& aSession, CmResult aResult, CmDword aLength, const CCmForwardHeader& aHeader,
                   CmDword aTick);

    // The messages: the number of the next one, and the length of one.
    uint64_t GetNextNumber() const { return m_Messages.size(); }
    CmDword GetLength(uint64_t aNumber) const { return m_Messages[aNumber].m_dwLength; }
    // Null: there is none.
    const CReceiver* Find(CmDword aId) const;
    // TRUE: a limit of the receiver is reached, so that its policy may act.
    CmBool IsAtLimit(const CReceiver& aReceiver, CmDword aTick) const;
    // The numbers of a receiver, for a report.
    std::string Describe(CmDword aId) const { return Find(aId) ? Difference_i(*Find(aId), {}) : ""; }
    const std::string& GetFailure() const { return m_strFailure; }  // "": there is none

private:
    struct CMessage {
        uint64_t m_ullKey;
        CmDword m_dwFlags;
        CmDword m_dwLength;
        CmDword m_dwTick;
    };

    void Fail_i(CmDword aId, const std::string& aText);
    CmBool IsFirstOld_i(const CReceiver& aReceiver, CmDword aTick) const;
    CCmForwardCount CountQueue_i(const CReceiver& aReceiver, CmBool aLimited) const;
    void PopSent_i(CReceiver& aReceiver, uint64_t aCount) const;
    void DropFirst_i(CReceiver& aReceiver) const;
    void DropOldest_i(CReceiver& aReceiver, CmDword aTick) const;
    void Push_i(CReceiver& aReceiver, uint64_t aNumber, uint64_t aReplaced) const;
    CmBool Matches_i(CReceiver& aReceiver, const CCmForwardStatistics& aStatistics) const;
    std::string Difference_i(const CReceiver& aReceiver, const CCmForwardStatistics& aStatistics) const;
    CmBool TryForward_i(CReceiver& aReceiver, const CCmForwardStatistics* aStatistics, CmResult aResult, uint64_t aReplaced,
                        CmDword aTick) const;

    std::vector<CMessage> m_Messages;
    std::map<uint64_t, uint64_t> m_Newest;  // of each key
    uint64_t m_ullLastKeyMessage = UINT64_MAX;
    std::map<CmDword, CReceiver> m_Receivers;
    std::string m_strFailure;
};
