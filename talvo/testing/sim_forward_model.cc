#include "talvo/testing/sim_forward_model.h"

#include <algorithm>

namespace {

constexpr uint64_t NONE = UINT64_MAX;

std::string TextOf(const CCmForwardCount& aCount) {
    return std::to_string(aCount.m_ullMessages) + " (" + std::to_string(aCount.m_ullBytes) + " bytes)";
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
        receiver.m_bAwaitsKey = receiver.m_bDueFromKey = m_ullLastKeyMessage == NONE;
        for (uint64_t n = m_ullLastKeyMessage; n < GetNextNumber(); ++n)
            Push_i(receiver, n, NONE);
        break;
    case CM_FORWARD_JOIN_ALL_KEYS:
        for (const auto& [ullKey, ullNumber] : m_Newest)
            receiver.m_Queue.push_back(ullNumber);
        std::sort(receiver.m_Queue.begin(), receiver.m_Queue.end());
        receiver.m_Due = CountQueue_i(receiver, FALSE);
        break;
    case CM_FORWARD_JOIN_OLDEST:
        for (uint64_t n = 0; n < GetNextNumber(); ++n)
            Push_i(receiver, n, NONE);
        break;
    }
    if (aOptions.m_Policy != CM_FORWARD_CONFLATE)
        return;
    const auto isReplaced = [this](uint64_t n) { return m_Messages[n].m_ullKey != 0 && m_Newest[m_Messages[n].m_ullKey] != n; };
    for (const uint64_t n : receiver.m_Queue)
        receiver.m_Conflated += isReplaced(n) ? CCmForwardCount{1, GetLength(n)} : CCmForwardCount{};
    std::erase_if(receiver.m_Queue, isReplaced);
}

void CCmSimForwardModel::Look(ICmForwardSession& aSession, DWORD aTick) {
    for (auto& [dwId, receiver] : m_Receivers) {
        CCmForwardStatistics statistics;
        if (receiver.m_bGone || aSession.GetStatistics(statistics, dwId) != CM_OK)
            continue;  // OnReceiver follows
        PopSent_i(receiver, statistics.m_Sent.m_ullMessages - receiver.m_Sent.m_ullMessages);
        const BOOL bDrops = receiver.m_Options.m_Policy == CM_FORWARD_DROP_OLDEST && statistics.m_Dropped != receiver.m_Dropped;
        if (bDrops && IsAtLimit(receiver, aTick))
            DropOldest_i(receiver, aTick);
        if (!Matches_i(receiver, statistics))
            Fail_i(dwId, Difference_i(receiver, statistics));
    }
}

void CCmSimForwardModel::OnForward(ICmForwardSession& aSession, CmResult aResult, DWORD aLength,
                                   const CCmForwardHeader& aHeader, DWORD aTick) {
    const auto isHoldingBack = [&](const auto& aEntry) {
        return aEntry.second.m_Options.m_Policy == CM_FORWARD_WAIT && IsAtLimit(aEntry.second, aTick);
    };
    if (aResult == CM_ERROR_PARTIAL_DATA && std::none_of(m_Receivers.begin(), m_Receivers.end(), isHoldingBack))
        Fail_i(0, "Forward is held back without a reason");
    uint64_t ullReplaced = NONE;
    if (aResult == CM_OK) {
        const auto it = m_Newest.find(aHeader.m_ullKey);
        ullReplaced = it != m_Newest.end() ? it->second : NONE;
        m_Messages.push_back({aHeader.m_ullKey, aHeader.m_dwFlags, aLength, aTick});
        if (aHeader.m_ullKey != 0)
            m_Newest[aHeader.m_ullKey] = GetNextNumber() - 1;
    }
    for (auto& [dwId, receiver] : m_Receivers) {
        CCmForwardStatistics statistics;
        const BOOL bPresent = aSession.GetStatistics(statistics, dwId) == CM_OK;
        if (!receiver.m_bGone && !TryForward_i(receiver, bPresent ? &statistics : nullptr, aResult, ullReplaced, aTick))
            Fail_i(dwId, "a Forward does not follow its policy: " + Difference_i(receiver, statistics));
    }
    if (aResult == CM_OK && (aHeader.m_dwFlags & CCmForwardHeader::KEY_MESSAGE))
        m_ullLastKeyMessage = GetNextNumber() - 1;  // the limits were applied before
}

// A receiver at its limit may be sent some before the message is added, and others afterwards: finds out how many.
BOOL CCmSimForwardModel::TryForward_i(CReceiver& aReceiver, const CCmForwardStatistics* aStatistics, CmResult aResult,
                                      uint64_t aReplaced, DWORD aTick) const {
    if (!aStatistics) {
        aReceiver.m_bGone = TRUE;  // or its transport has ended, as OnReceiver will report
        return TRUE;
    }
    const uint64_t ullSent = aStatistics->m_Sent.m_ullMessages - aReceiver.m_Sent.m_ullMessages;
    for (uint64_t ullBefore = IsAtLimit(aReceiver, aTick) ? ullSent + 1 : 1; ullBefore-- > 0;) {
        CReceiver receiver = aReceiver;
        PopSent_i(receiver, ullBefore);
        const BOOL bAtLimit = IsAtLimit(receiver, aTick);
        const BOOL bDrops = receiver.m_Options.m_Policy == CM_FORWARD_DROP_OLDEST;
        if (bAtLimit && !bDrops && aResult == CM_OK)
            continue;  // it must be gone, or hold back
        // A Forward that was held back may have applied the limit.
        if (bAtLimit && bDrops && (aResult == CM_OK || aStatistics->m_Dropped != receiver.m_Dropped))
            DropOldest_i(receiver, aTick);
        if (aResult == CM_OK)
            Push_i(receiver, GetNextNumber() - 1, aReplaced);
        PopSent_i(receiver, ullSent - ullBefore);
        if (!Matches_i(receiver, *aStatistics))
            continue;
        aReceiver = receiver;
        return TRUE;
    }
    return FALSE;
}

// A session decides later: what is replaced may still be in its lag, or have been dropped with a replay.
BOOL CCmSimForwardModel::Matches_i(CReceiver& aReceiver, const CCmForwardStatistics& aStatistics) const {
    const CCmForwardCount lag = CountQueue_i(aReceiver, FALSE);
    const CCmForwardCount all = aStatistics.m_Sent + aStatistics.m_Dropped + aStatistics.m_Conflated + aStatistics.m_Lag;
    if (aReceiver.m_Options.m_Join == CM_FORWARD_JOIN_ALL_KEYS && aStatistics.m_Dropped.m_ullMessages > 0) {
        aReceiver.m_Conflated = aReceiver.m_Conflated + aReceiver.m_Dropped - aStatistics.m_Dropped;
        aReceiver.m_Dropped = aStatistics.m_Dropped;
    }
    return aStatistics.m_Due == all && aStatistics.m_Due == aReceiver.m_Due && aStatistics.m_Sent == aReceiver.m_Sent &&
           aStatistics.m_Dropped == aReceiver.m_Dropped && aStatistics.m_Lag.m_ullMessages >= lag.m_ullMessages &&
           aStatistics.m_Conflated + aStatistics.m_Lag == aReceiver.m_Conflated + lag;
}

std::string CCmSimForwardModel::Difference_i(const CReceiver& aReceiver, const CCmForwardStatistics& aStatistics) const {
    const auto compare = [](const char* aName, const CCmForwardCount& aIs, const CCmForwardCount& aExpected) {
        return std::string(aName) + " " + TextOf(aIs) + " for " + TextOf(aExpected) + " ";
    };
    const CCmForwardReceiverOptions& options = aReceiver.m_Options;
    return "policy " + std::to_string(options.m_Policy) + ", join " + std::to_string(options.m_Join) + ", limits " +
           std::to_string(options.m_dwMaxMessages) + ", " + std::to_string(options.m_dwMaxBytes) + ", " +
           std::to_string(options.m_dwMaxMilliseconds) + ": " + compare("due", aStatistics.m_Due, aReceiver.m_Due) +
           compare("sent", aStatistics.m_Sent, aReceiver.m_Sent) +
           compare("dropped", aStatistics.m_Dropped, aReceiver.m_Dropped) +
           compare("conflated", aStatistics.m_Conflated, aReceiver.m_Conflated) +
           compare("lag", aStatistics.m_Lag, CountQueue_i(aReceiver, FALSE));
}

CCmForwardCount CCmSimForwardModel::CountQueue_i(const CReceiver& aReceiver, BOOL aLimited) const {
    CCmForwardCount count;
    for (const uint64_t n : aReceiver.m_Queue) {
        const BOOL bConflated = aReceiver.m_Options.m_Policy == CM_FORWARD_CONFLATE && m_Messages[n].m_ullKey != 0;
        if (!aLimited || (n >= aReceiver.m_ullJoined && !bConflated))
            count += {1, GetLength(n)};
    }
    return count;
}

// Whether the oldest message that counts has reached the limit of milliseconds.
BOOL CCmSimForwardModel::IsFirstOld_i(const CReceiver& aReceiver, DWORD aTick) const {
    const DWORD dwMax = aReceiver.m_Options.m_dwMaxMilliseconds;
    for (const uint64_t n : aReceiver.m_Queue) {
        const BOOL bConflated = aReceiver.m_Options.m_Policy == CM_FORWARD_CONFLATE && m_Messages[n].m_ullKey != 0;
        if (n >= aReceiver.m_ullJoined && !bConflated)
            return dwMax > 0 && aTick - m_Messages[n].m_dwTick >= dwMax;
    }
    return FALSE;
}

BOOL CCmSimForwardModel::IsAtLimit(const CReceiver& aReceiver, DWORD aTick) const {
    const CCmForwardReceiverOptions& options = aReceiver.m_Options;
    const CCmForwardCount lag = CountQueue_i(aReceiver, TRUE);
    if (!aReceiver.m_bJoined)
        return FALSE;
    return (options.m_dwMaxMessages > 0 && lag.m_ullMessages >= options.m_dwMaxMessages) ||
           (options.m_dwMaxBytes > 0 && lag.m_ullBytes >= options.m_dwMaxBytes) || IsFirstOld_i(aReceiver, aTick);
}

void CCmSimForwardModel::PopSent_i(CReceiver& aReceiver, uint64_t aCount) const {
    for (; aCount > 0 && !aReceiver.m_Queue.empty(); --aCount) {
        aReceiver.m_Numbers.push_back(aReceiver.m_Queue.front());
        aReceiver.m_Sent += {1, GetLength(aReceiver.m_Queue.front())};
        aReceiver.m_Queue.pop_front();
    }
}

void CCmSimForwardModel::DropFirst_i(CReceiver& aReceiver) const {
    aReceiver.m_Dropped += {1, GetLength(aReceiver.m_Queue.front())};
    aReceiver.m_Queue.pop_front();
}

void CCmSimForwardModel::DropOldest_i(CReceiver& aReceiver, DWORD aTick) const {
    const CCmForwardReceiverOptions& options = aReceiver.m_Options;
    const auto fits = [&] {
        const CCmForwardCount lag = CountQueue_i(aReceiver, FALSE);
        const uint64_t ullFirst = aReceiver.m_Queue.front();
        return (options.m_dwMaxMessages == 0 || lag.m_ullMessages <= options.m_dwMaxMessages / 2) &&
               (options.m_dwMaxBytes == 0 || lag.m_ullBytes <= options.m_dwMaxBytes / 2) &&
               (options.m_dwMaxMilliseconds == 0 || aTick - m_Messages[ullFirst].m_dwTick <= options.m_dwMaxMilliseconds / 2);
    };
    const uint64_t ullReplayed = options.m_Join == CM_FORWARD_JOIN_ALL_KEYS ? aReceiver.m_ullJoined : 0;
    while (!aReceiver.m_Queue.empty() && (aReceiver.m_Queue.front() < ullReplayed || !fits()))
        DropFirst_i(aReceiver);
    aReceiver.m_bAwaitsKey = m_ullLastKeyMessage != NONE;
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
    aReceiver.m_Queue.push_back(aNumber);
    if (aReceiver.m_bAwaitsKey)
        return DropFirst_i(aReceiver);  // the queue was empty
    const BOOL bReplays = aReceiver.m_Options.m_Join == CM_FORWARD_JOIN_ALL_KEYS && aReplaced < aReceiver.m_ullJoined;
    const auto it = std::find(aReceiver.m_Queue.begin(), aReceiver.m_Queue.end(), aReplaced);
    if (it == aReceiver.m_Queue.end() || !(bReplays || aReceiver.m_Options.m_Policy == CM_FORWARD_CONFLATE))
        return;
    aReceiver.m_Conflated += {1, GetLength(aReplaced)};
    aReceiver.m_Queue.erase(it);
}

void CCmSimForwardModel::Fail_i(DWORD aId, const std::string& aText) {
    if (m_strFailure.empty())
        m_strFailure = "receiver " + std::to_string(aId) + ": " + aText;
}
