#include "talvo/testing/sim_forward_model.h"

#include <algorithm>
#include <utility>

namespace {

constexpr uint64_t NONE = UINT64_MAX;

std::string TextOf(const CCmForwardCount& aCount) {
    return std::to_string(aCount.m_ullMessages) + " (" + std::to_string(aCount.m_ullBytes) + " bytes)";
}

// TRUE: the model compares the same numbers.
BOOL HasSameCounts(const CCmForwardStatistics& aLeft, const CCmForwardStatistics& aRight) {
    return aLeft.m_Due == aRight.m_Due && aLeft.m_Sent == aRight.m_Sent && aLeft.m_Dropped == aRight.m_Dropped &&
           aLeft.m_Conflated == aRight.m_Conflated && aLeft.m_Lag == aRight.m_Lag;
}

}  // namespace

const CCmSimForwardModel::CReceiver* CCmSimForwardModel::Find(DWORD aId) const {
    const auto it = m_Receivers.find(aId);
    return it != m_Receivers.end() ? &it->second : nullptr;
}

void CCmSimForwardModel::Add(DWORD aId, const CCmForwardReceiverOptions& aOptions) {
    CReceiver& receiver = m_Receivers[aId];
    receiver.m_Options = aOptions;
    receiver.m_ullJoined = GetNextNumber();
    switch (aOptions.m_Join) {
    case CM_FORWARD_JOIN_NEXT:
        break;
    case CM_FORWARD_JOIN_KEY:
        receiver.m_bAwaitsKey = receiver.m_bDueFromKey = m_ullLastKeyMessage == NONE || m_ullLastKeyMessage < m_ullBegin;
        for (uint64_t n = receiver.m_bAwaitsKey ? NONE : m_ullLastKeyMessage; n < GetNextNumber(); ++n)
            Push_i(receiver, n, NONE);
        break;
    case CM_FORWARD_JOIN_ALL_KEYS:
        for (const auto& [ullKey, ullNumber] : m_Newest)
            receiver.m_Queue.push_back(ullNumber);
        std::sort(receiver.m_Queue.begin(), receiver.m_Queue.end());
        for (const uint64_t n : receiver.m_Queue)
            receiver.m_Lag += {1, GetLength(n)};
        receiver.m_Due = receiver.m_Lag;
        break;
    case CM_FORWARD_JOIN_OLDEST:
        for (uint64_t n = m_ullBegin; n < GetNextNumber(); ++n)
            Push_i(receiver, n, NONE);
        break;
    }
    if (aOptions.m_Policy != CM_FORWARD_CONFLATE)
        return;
    for (const uint64_t n : std::deque<uint64_t>(receiver.m_Queue)) {
        if (!m_Messages[n].m_bReplaced)
            continue;
        receiver.m_Conflated += {1, GetLength(n)};
        Dequeue_i(receiver, std::lower_bound(receiver.m_Queue.begin(), receiver.m_Queue.end(), n));
    }
}

void CCmSimForwardModel::Look(ICmForwardSession& aSession, DWORD aTick) {
    for (auto& [dwId, receiver] : m_Receivers) {
        CCmForwardStatistics statistics;
        if (receiver.m_bGone || aSession.GetStatistics(statistics, dwId) != CM_OK) {
            receiver.m_Seen = {};
            continue;  // OnReceiver follows
        }
        if (receiver.m_bMatched && HasSameCounts(statistics, receiver.m_Seen)) {
            receiver.m_Seen = statistics;
            continue;  // they would agree again
        }
        PopSent_i(receiver, statistics.m_Sent.m_ullMessages - receiver.m_Sent.m_ullMessages);
        const BOOL bDrops = receiver.m_Options.m_Policy == CM_FORWARD_DROP_OLDEST && statistics.m_Dropped != receiver.m_Dropped;
        if (bDrops && IsAtLimit(receiver, aTick))
            DropOldest_i(receiver, aTick, m_ullLastKeyMessage != NONE);
        if (!Matches_i(receiver, statistics))
            Fail_i(dwId, Difference_i(receiver));
    }
}

DWORD CCmSimForwardModel::FindLagging() const {
    const auto it = std::find_if(m_Receivers.begin(), m_Receivers.end(), [](const auto& aEntry) {
        const CReceiver& receiver = aEntry.second;
        return receiver.m_bJoined && receiver.m_Seen.m_ullRefused == 0 && receiver.m_Seen.m_Lag.m_ullMessages > 0;
    });
    return it != m_Receivers.end() ? it->first : 0;
}

BOOL CCmSimForwardModel::IsFull_i(DWORD aLength) const {
    const uint64_t ullCount = GetNextNumber() - m_ullBegin;
    return ullCount > 0 && (ullCount >= m_Limits.m_dwMessages || m_Held.m_ullBytes + aLength > m_Limits.m_dwBytes);
}

// TRUE: aJudge holds for a receiver with WAIT, as it is behind the messages that it has been sent by now.
template <class CJudge>
BOOL CCmSimForwardModel::AnyWaiting_i(ICmForwardSession& aSession, CJudge aJudge) const {
    return std::any_of(m_Receivers.begin(), m_Receivers.end(), [&](const auto& aEntry) {
        CCmForwardStatistics statistics;
        if (aEntry.second.m_Options.m_Policy != CM_FORWARD_WAIT || aSession.GetStatistics(statistics, aEntry.first) != CM_OK)
            return FALSE;
        CReceiver receiver = aEntry.second;
        PopSent_i(receiver, statistics.m_Sent.m_ullMessages - receiver.m_Sent.m_ullMessages);
        return aJudge(receiver);
    });
}

// TRUE: a receiver with WAIT has not been sent the message.
BOOL CCmSimForwardModel::IsWaitedFor_i(ICmForwardSession& aSession, const CLoss& aLoss) const {
    return AnyWaiting_i(aSession, [&](const CReceiver& aReceiver) { return Needs_i(aReceiver, aLoss); });
}

// FALSE: the Forward is held back here.
BOOL CCmSimForwardModel::MakeRoom_i(ICmForwardSession& aSession, DWORD aLength, CTry& aTry) {
    BoundKept_i(aTry.m_Before);
    while (IsFull_i(aLength)) {
        const CMessage& first = m_Messages[m_ullBegin];
        const CCmForwardCount count{1, first.m_dwLength};
        const auto it = m_Newest.find(first.m_ullKey);
        const BOOL bKeep = it != m_Newest.end() && it->second == m_ullBegin;
        const CLoss loss{m_ullBegin, m_ullBegin + (GetNextNumber() - m_ullBegin + 1) / 2, FALSE, bKeep || first.m_bReplaced};
        if (aTry.m_Result != CM_OK && IsWaitedFor_i(aSession, loss))
            return FALSE;
        aTry.m_Before.push_back(loss);
        if (bKeep)
            m_Kept += count;
        else
            m_Held -= count;
        ++m_ullBegin;
        BoundKept_i(aTry.m_Before);
    }
    while (!m_Newest.empty() && m_Held.m_ullBytes + aLength > m_Limits.m_dwBytes)
        ForgetKey_i(aTry.m_Before);
    return TRUE;
}

void CCmSimForwardModel::BoundKept_i(std::vector<CLoss>& aLosses) {
    while (m_Kept.m_ullBytes > m_Limits.m_dwBytes / 2)
        ForgetKey_i(aLosses);
}

void CCmSimForwardModel::ForgetKey_i(std::vector<CLoss>& aLosses) {
    const auto it = std::min_element(m_Newest.begin(), m_Newest.end(),
                                     [](const auto& aLeft, const auto& aRight) { return aLeft.second < aRight.second; });
    const uint64_t ullNumber = it->second;
    const BOOL bKept = ullNumber < m_ullBegin;
    const CCmForwardCount count{bKept ? 1u : 0u, bKept ? GetLength(ullNumber) : 0};
    aLosses.push_back({ullNumber, 0, TRUE, !bKept});
    m_Held -= count;
    m_Kept -= count;
    m_Newest.erase(it);
}

// Returns the message that it replaces; NONE.
uint64_t CCmSimForwardModel::Append_i(const CMessage& aMessage) {
    const auto it = m_Newest.find(aMessage.m_ullKey);
    const uint64_t ullReplaced = it != m_Newest.end() ? it->second : NONE;
    if (ullReplaced != NONE) {
        const BOOL bKept = ullReplaced < m_ullBegin;
        const CCmForwardCount count{bKept ? 1u : 0u, bKept ? GetLength(ullReplaced) : 0};
        m_Messages[ullReplaced].m_bReplaced = TRUE;
        m_Held -= count;
        m_Kept -= count;
    }
    if (aMessage.m_ullKey != 0)
        m_Newest[aMessage.m_ullKey] = GetNextNumber();
    m_Messages.push_back(aMessage);
    m_Held += {1, aMessage.m_dwLength};
    return ullReplaced;
}

BOOL CCmSimForwardModel::Needs_i(const CReceiver& aReceiver, const CLoss& aLoss) const {
    const BOOL bReplayed = aReceiver.m_Options.m_Join == CM_FORWARD_JOIN_ALL_KEYS && aLoss.m_ullNumber < aReceiver.m_ullJoined;
    const BOOL bConflates = aReceiver.m_Options.m_Policy == CM_FORWARD_CONFLATE;
    const BOOL bLost =
        aLoss.m_bKey ? bReplayed || (bConflates && !aLoss.m_bSpared) : !bReplayed && !(bConflates && aLoss.m_bSpared);
    return bLost && std::binary_search(aReceiver.m_Queue.begin(), aReceiver.m_Queue.end(), aLoss.m_ullNumber);
}

// TRUE: the receiver may be removed.
BOOL CCmSimForwardModel::HasReason_i(const CReceiver& aReceiver, const CTry& aTry) const {
    const auto needs = [&](const CLoss& aLoss) { return Needs_i(aReceiver, aLoss); };
    return IsAtLimit(aReceiver, aTry.m_dwTick) || std::any_of(aTry.m_Before.begin(), aTry.m_Before.end(), needs) ||
           std::any_of(aTry.m_After.begin(), aTry.m_After.end(), needs);
}

// FALSE: the receiver must be gone.
BOOL CCmSimForwardModel::TakeLosses_i(CReceiver& aReceiver, const std::vector<CLoss>& aLosses, DWORD aTick,
                                      BOOL aHadKeyMessage) const {
    for (const CLoss& loss : aLosses) {
        if (!Needs_i(aReceiver, loss))
            continue;
        if (aReceiver.m_Options.m_Policy != CM_FORWARD_DROP_OLDEST)
            return FALSE;
        DropOldest_i(aReceiver, aTick, aHadKeyMessage, loss.m_ullBeyond);
    }
    return TRUE;
}

void CCmSimForwardModel::OnForward(ICmForwardSession& aSession, CmResult aResult, DWORD aLength,
                                   const CCmForwardHeader& aHeader, DWORD aTick, BOOL aLate) {
    CTry attempt{.m_Result = aResult, .m_dwTick = aTick, .m_bHadKeyMessage = m_ullLastKeyMessage != NONE, .m_bLate = aLate};
    const auto isAtLimit = [&](const CReceiver& aReceiver) { return IsAtLimit(aReceiver, aTick); };
    if (aResult == CM_OK || !AnyWaiting_i(aSession, isAtLimit)) {
        if (MakeRoom_i(aSession, aLength, attempt) != (aResult == CM_OK))
            Fail_i(0, "Forward is held back without a reason");
    }
    if (aResult == CM_OK) {
        attempt.m_ullReplaced = Append_i({aHeader.m_ullKey, aHeader.m_dwFlags, aLength, aTick});
        while (m_Newest.size() > m_Limits.m_dwKeys)
            ForgetKey_i(attempt.m_After);
    }
    CCmForwardStatistics all;  // those of any receiver have the log's part of them
    BOOL bAny = FALSE;
    for (auto& [dwId, receiver] : m_Receivers) {
        CCmForwardStatistics statistics;
        const BOOL bPresent = aSession.GetStatistics(statistics, dwId) == CM_OK;
        if (bPresent)
            all.m_Held = statistics.m_Held;
        bAny = bAny || bPresent;
        if (!receiver.m_bGone && !TryForward_i(receiver, bPresent ? &statistics : nullptr, attempt))
            Fail_i(dwId, "a Forward does not follow its policy: " + Difference_i(receiver));
    }
    if (aResult == CM_OK && (aHeader.m_dwFlags & CCmForwardHeader::KEY_MESSAGE))
        m_ullLastKeyMessage = GetNextNumber() - 1;  // the limits were applied before
    if (!bAny)
        aSession.GetStatistics(all);
    if (all.m_Held != m_Held)
        Fail_i(0, "the log holds " + TextOf(all.m_Held) + " for " + TextOf(m_Held));
    if (all.m_Held.m_ullBytes > m_Limits.m_dwBytes && all.m_Held.m_ullMessages > 1)
        Fail_i(0, "the log holds too much: " + TextOf(all.m_Held));
}

// A receiver that must lose messages may be sent some before, and others afterwards: finds out how many.
BOOL CCmSimForwardModel::TryForward_i(CReceiver& aReceiver, const CCmForwardStatistics* aStatistics, const CTry& aTry) const {
    if (!aStatistics) {
        aReceiver.m_bGone = TRUE;  // or its transport has ended, as OnReceiver will report
        aReceiver.m_bLost = HasReason_i(aReceiver, aTry);
        return TRUE;
    }
    aReceiver.m_Seen = *aStatistics;
    aReceiver.m_bMatched = FALSE;
    if (!aTry.m_bLate && !HasReason_i(aReceiver, aTry))
        return TryAfter_i(aReceiver, 0, *aStatistics, aTry);
    std::vector<uint64_t> numbers;
    numbers.swap(aReceiver.m_Numbers);  // no attempt copies them
    for (uint64_t ullBefore = aStatistics->m_Sent.m_ullMessages - aReceiver.m_Sent.m_ullMessages + 1; ullBefore-- > 0;) {
        CReceiver receiver = aReceiver;
        if (!TryAfter_i(receiver, ullBefore, *aStatistics, aTry))
            continue;
        numbers.insert(numbers.end(), receiver.m_Numbers.begin(), receiver.m_Numbers.end());
        receiver.m_Numbers.swap(numbers);
        aReceiver = std::move(receiver);
        return TRUE;
    }
    aReceiver.m_Numbers.swap(numbers);
    return FALSE;
}

// The Forward after aBefore further messages were sent. FALSE: it would have other results.
BOOL CCmSimForwardModel::TryAfter_i(CReceiver& aReceiver, uint64_t aBefore, const CCmForwardStatistics& aStatistics,
                                    const CTry& aTry) const {
    const BOOL bTaken = aTry.m_Result == CM_OK;
    const uint64_t ullSent = aStatistics.m_Sent.m_ullMessages - aReceiver.m_Sent.m_ullMessages;
    PopSent_i(aReceiver, aBefore);
    const BOOL bAtLimit = IsAtLimit(aReceiver, aTry.m_dwTick);
    const BOOL bDrops = aReceiver.m_Options.m_Policy == CM_FORWARD_DROP_OLDEST;
    if (bAtLimit && !bDrops && bTaken)
        return FALSE;  // it must be gone, or hold back
    // A Forward that was held back may have applied the limit.
    if (bAtLimit && bDrops && (bTaken || aStatistics.m_Dropped != aReceiver.m_Dropped))
        DropOldest_i(aReceiver, aTry.m_dwTick, aTry.m_bHadKeyMessage);
    if (!TakeLosses_i(aReceiver, aTry.m_Before, aTry.m_dwTick, aTry.m_bHadKeyMessage))
        return FALSE;
    if (bTaken)
        Push_i(aReceiver, GetNextNumber() - 1, aTry.m_ullReplaced);
    PopSent_i(aReceiver, ullSent - aBefore);
    const BOOL bHasKeyMessage =
        aTry.m_bHadKeyMessage || (bTaken && (m_Messages.back().m_dwFlags & CCmForwardHeader::KEY_MESSAGE));
    return TakeLosses_i(aReceiver, aTry.m_After, aTry.m_dwTick, bHasKeyMessage) && Matches_i(aReceiver, aStatistics);
}

// A session decides later: what is replaced may still be in its lag, or have been dropped with a replay.
BOOL CCmSimForwardModel::Matches_i(CReceiver& aReceiver, const CCmForwardStatistics& aStatistics) const {
    const CCmForwardCount& lag = aReceiver.m_Lag;
    const CCmForwardCount all = aStatistics.m_Sent + aStatistics.m_Dropped + aStatistics.m_Conflated + aStatistics.m_Lag;
    if (aReceiver.m_Options.m_Join == CM_FORWARD_JOIN_ALL_KEYS && aStatistics.m_Dropped.m_ullMessages > 0) {
        aReceiver.m_Conflated = aReceiver.m_Conflated + aReceiver.m_Dropped - aStatistics.m_Dropped;
        aReceiver.m_Dropped = aStatistics.m_Dropped;
    }
    aReceiver.m_Seen = aStatistics;
    aReceiver.m_bMatched = aStatistics.m_Due == all && aStatistics.m_Due == aReceiver.m_Due &&
                           aStatistics.m_Sent == aReceiver.m_Sent && aStatistics.m_Dropped == aReceiver.m_Dropped &&
                           aStatistics.m_Lag.m_ullMessages >= lag.m_ullMessages &&
                           aStatistics.m_Conflated + aStatistics.m_Lag == aReceiver.m_Conflated + lag;
    return aReceiver.m_bMatched;
}

std::string CCmSimForwardModel::Difference_i(const CReceiver& aReceiver) const {
    const CCmForwardStatistics& seen = aReceiver.m_Seen;
    const auto compare = [](const char* aName, const CCmForwardCount& aIs, const CCmForwardCount& aExpected) {
        return std::string(aName) + " " + TextOf(aIs) + " for " + TextOf(aExpected) + " ";
    };
    const CCmForwardReceiverOptions& options = aReceiver.m_Options;
    return "policy " + std::to_string(options.m_Policy) + ", join " + std::to_string(options.m_Join) + ", limits " +
           std::to_string(options.m_dwMaxMessages) + ", " + std::to_string(options.m_dwMaxBytes) + ", " +
           std::to_string(options.m_dwMaxMilliseconds) + ": " + compare("due", seen.m_Due, aReceiver.m_Due) +
           compare("sent", seen.m_Sent, aReceiver.m_Sent) + compare("dropped", seen.m_Dropped, aReceiver.m_Dropped) +
           compare("conflated", seen.m_Conflated, aReceiver.m_Conflated) + compare("lag", seen.m_Lag, aReceiver.m_Lag);
}

// TRUE: the message counts towards the limits.
BOOL CCmSimForwardModel::IsLimited_i(const CReceiver& aReceiver, uint64_t aNumber) const {
    const BOOL bConflated = aReceiver.m_Options.m_Policy == CM_FORWARD_CONFLATE && m_Messages[aNumber].m_ullKey != 0;
    return aNumber >= aReceiver.m_ullJoined && !bConflated;
}

void CCmSimForwardModel::Enqueue_i(CReceiver& aReceiver, uint64_t aNumber) const {
    const CCmForwardCount one{1, GetLength(aNumber)};
    aReceiver.m_Queue.push_back(aNumber);
    aReceiver.m_Lag += one;
    if (IsLimited_i(aReceiver, aNumber))
        aReceiver.m_LimitedLag += one;
}

void CCmSimForwardModel::Dequeue_i(CReceiver& aReceiver, std::deque<uint64_t>::const_iterator aPlace) const {
    const CCmForwardCount one{1, GetLength(*aPlace)};
    aReceiver.m_Lag -= one;
    if (IsLimited_i(aReceiver, *aPlace))
        aReceiver.m_LimitedLag -= one;
    aReceiver.m_Queue.erase(aPlace);
}

// Whether the oldest message that counts has reached the limit of milliseconds.
BOOL CCmSimForwardModel::IsFirstOld_i(const CReceiver& aReceiver, DWORD aTick) const {
    const DWORD dwMax = aReceiver.m_Options.m_dwMaxMilliseconds;
    if (dwMax == 0 || aReceiver.m_LimitedLag.m_ullMessages == 0)
        return FALSE;
    const auto it =
        std::find_if(aReceiver.m_Queue.begin(), aReceiver.m_Queue.end(), [&](uint64_t n) { return IsLimited_i(aReceiver, n); });
    return aTick - m_Messages[*it].m_dwTick >= dwMax;
}

BOOL CCmSimForwardModel::IsAtLimit(const CReceiver& aReceiver, DWORD aTick) const {
    const CCmForwardReceiverOptions& options = aReceiver.m_Options;
    const CCmForwardCount& lag = aReceiver.m_LimitedLag;
    if (!aReceiver.m_bJoined)
        return FALSE;
    return (options.m_dwMaxMessages > 0 && lag.m_ullMessages >= options.m_dwMaxMessages) ||
           (options.m_dwMaxBytes > 0 && lag.m_ullBytes >= options.m_dwMaxBytes) || IsFirstOld_i(aReceiver, aTick);
}

void CCmSimForwardModel::PopSent_i(CReceiver& aReceiver, uint64_t aCount) const {
    for (; aCount > 0 && !aReceiver.m_Queue.empty(); --aCount) {
        aReceiver.m_Numbers.push_back(aReceiver.m_Queue.front());
        aReceiver.m_Sent += {1, GetLength(aReceiver.m_Queue.front())};
        Dequeue_i(aReceiver, aReceiver.m_Queue.begin());
    }
}

void CCmSimForwardModel::DropFirst_i(CReceiver& aReceiver) const {
    aReceiver.m_Dropped += {1, GetLength(aReceiver.m_Queue.front())};
    Dequeue_i(aReceiver, aReceiver.m_Queue.begin());
}

void CCmSimForwardModel::DropOldest_i(CReceiver& aReceiver, DWORD aTick, BOOL aHadKeyMessage, uint64_t aBeyond) const {
    const CCmForwardReceiverOptions& options = aReceiver.m_Options;
    const auto fits = [&] {
        const CCmForwardCount& lag = aReceiver.m_Lag;
        const uint64_t ullFirst = aReceiver.m_Queue.front();
        return (options.m_dwMaxMessages == 0 || lag.m_ullMessages <= options.m_dwMaxMessages / 2) &&
               (options.m_dwMaxBytes == 0 || lag.m_ullBytes <= options.m_dwMaxBytes / 2) &&
               (options.m_dwMaxMilliseconds == 0 || aTick - m_Messages[ullFirst].m_dwTick <= options.m_dwMaxMilliseconds / 2);
    };
    const uint64_t ullReplayed = options.m_Join == CM_FORWARD_JOIN_ALL_KEYS ? aReceiver.m_ullJoined : 0;
    const uint64_t ullFirst = std::max(ullReplayed, aBeyond);
    while (!aReceiver.m_Queue.empty() && (aReceiver.m_Queue.front() < ullFirst || !fits()))
        DropFirst_i(aReceiver);
    aReceiver.m_bAwaitsKey = aHadKeyMessage;
    while (aReceiver.m_bAwaitsKey && !aReceiver.m_Queue.empty()) {
        aReceiver.m_bAwaitsKey = !(m_Messages[aReceiver.m_Queue.front()].m_dwFlags & CCmForwardHeader::KEY_MESSAGE);
        if (aReceiver.m_bAwaitsKey)
            DropFirst_i(aReceiver);
    }
}

// aReplaced: the message that it replaces; NONE.
void CCmSimForwardModel::Push_i(CReceiver& aReceiver, uint64_t aNumber, uint64_t aReplaced) const {
    if (m_Messages[aNumber].m_dwFlags & CCmForwardHeader::KEY_MESSAGE)
        aReceiver.m_bAwaitsKey = aReceiver.m_bDueFromKey = FALSE;
    if (aReceiver.m_bDueFromKey)
        return;
    aReceiver.m_Due += {1, GetLength(aNumber)};
    Enqueue_i(aReceiver, aNumber);
    if (aReceiver.m_bAwaitsKey)
        return DropFirst_i(aReceiver);  // the queue was empty
    const BOOL bReplays = aReceiver.m_Options.m_Join == CM_FORWARD_JOIN_ALL_KEYS && aReplaced < aReceiver.m_ullJoined;
    const auto it = std::lower_bound(aReceiver.m_Queue.begin(), aReceiver.m_Queue.end(), aReplaced);
    if (it == aReceiver.m_Queue.end() || *it != aReplaced || !(bReplays || aReceiver.m_Options.m_Policy == CM_FORWARD_CONFLATE))
        return;
    aReceiver.m_Conflated += {1, GetLength(aReplaced)};
    Dequeue_i(aReceiver, it);
}

void CCmSimForwardModel::Fail_i(DWORD aId, const std::string& aText) {
    if (m_strFailure.empty())
        m_strFailure = "receiver " + std::to_string(aId) + ": " + aText;
}
