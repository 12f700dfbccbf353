#include "talvo/transport/tcp/connect_race.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/clock.h"

namespace talvo {

namespace {

constexpr int64_t STAGGER_USEC = 250000;

// TRUE: the failure is due to this machine or to aAddrLocal, not to the peer or the network.
BOOL IsOwnFault(int aErrno) {
    return aErrno == ENETUNREACH || aErrno == EAFNOSUPPORT || aErrno == EADDRNOTAVAIL || aErrno == EINVAL;
}

}  // namespace

template <class TransportType>
int CConnectRaceT<TransportType>::Run(std::vector<CCmInetAddr> aAddrs, const CCmInetAddr& aAddrLocal,
                                      const CSocketSettings& aSockets, CCmRefPtrT<TransportType>& aTransport) {
    if (m_stNext == 0) {
        m_Failure = {};
        m_Refusal = CM_OK;
    }
    m_AddrLocal = aAddrLocal;
    m_Sockets = aSockets;
    m_Addrs.resize(m_stNext);
    for (CCmInetAddr& addr : aAddrs) {
        const auto tried = m_Addrs.begin() + static_cast<ptrdiff_t>(m_stNext);
        if (std::find(m_Addrs.begin(), tried, addr) == tried)
            m_Addrs.push_back(std::move(addr));
    }
    m_Attempts.reserve(m_Addrs.size());
    if (m_Attempts.empty())
        return StartNext_i(aTransport);
    ArmTimer_i();
    return 1;
}

template <class TransportType>
void CConnectRaceT<TransportType>::Stop() {
    m_Attempts.clear();
    m_Addrs.clear();
    m_stNext = 0;
    m_pReactor->CancelTimer(this);
}

// Skips addresses that fail at once. Results as Start; -1: there are no more addresses, or the race is over.
template <class TransportType>
int CConnectRaceT<TransportType>::StartNext_i(CCmRefPtrT<TransportType>& aTransport) {
    while (m_stNext < m_Addrs.size()) {
        const CCmInetAddr& addr = m_Addrs[m_stNext++];
        std::unique_ptr<CAttempt> pAttempt(new (std::nothrow) CAttempt(m_pReactor, *this, m_pMaker.get()));
        if (!pAttempt) {
            Note_i(CCmFailure(ENOMEM, "connect to", addr));
            continue;
        }
        const int nRv = pAttempt->Start(addr, m_AddrLocal, m_Sockets);
        if (nRv == -1) {
            if (IsOver_i(*pAttempt))
                return -1;
            continue;
        }
        if (nRv == 0) {
            aTransport = pAttempt->TakeTransport();
            return 0;
        }
        m_Attempts.push_back(std::move(pAttempt));
        m_llLastUsec = CCmClock::GetTimeOfDayUsec();
        ArmTimer_i();
        return 1;
    }
    return -1;
}

// TRUE: the failure of an attempt has ended the race.
template <class TransportType>
BOOL CConnectRaceT<TransportType>::IsOver_i(const CAttempt& aFailed) {
    Note_i(aFailed.GetFailure());
    if (aFailed.GetReason() == CM_ERROR_NETWORK_CONNECT_ERROR)
        return FALSE;
    m_Failure = aFailed.GetFailure();
    m_Refusal = aFailed.GetReason();
    Stop();
    return TRUE;
}

// The next address starts 250 ms after the last one.
template <class TransportType>
void CConnectRaceT<TransportType>::ArmTimer_i() {
    m_pReactor->CancelTimer(this);
    if (m_stNext == m_Addrs.size())
        return;
    const int64_t llWait = m_llLastUsec + STAGGER_USEC - CCmClock::GetTimeOfDayUsec();
    m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue::FromUsec(std::clamp<int64_t>(llWait, 0, STAGGER_USEC)), 1);
}

template <class TransportType>
void CConnectRaceT<TransportType>::Note_i(const CCmFailure& aFailure) {
    if (!m_Failure || !IsOwnFault(aFailure.GetErrno()))
        m_Failure = aFailure;
}

template <class TransportType>
void CConnectRaceT<TransportType>::OnTimeout(const CCmTimeValue&, void*) {
    const auto shakesHands = [](const std::unique_ptr<CAttempt>& a) { return a->IsShakingHands(); };
    if (std::ranges::none_of(m_Attempts, shakesHands))
        GoOn_i();
}

template <class TransportType>
void CConnectRaceT<TransportType>::OnAttemptDone(CAttempt& aAttempt, int aError) {
    if (aError == 0) {
        Done_i(aAttempt.TakeTransport());
        return;
    }
    if (IsOver_i(aAttempt)) {
        Done_i(nullptr);
        return;
    }
    std::erase_if(m_Attempts, [&](const std::unique_ptr<CAttempt>& a) { return a.get() == &aAttempt; });
    GoOn_i();
}

template <class TransportType>
void CConnectRaceT<TransportType>::GoOn_i() {
    CCmRefPtrT<TransportType> pTransport;
    const int nRv = StartNext_i(pTransport);
    if (nRv == 0 || (nRv == -1 && m_Attempts.empty()))
        Done_i(std::move(pTransport));
}

template <class TransportType>
void CConnectRaceT<TransportType>::Done_i(CCmRefPtrT<TransportType> aTransport) {
    if (aTransport)
        Stop();
    m_pReactor->CancelTimer(this);
    m_User.OnRaceDone(std::move(aTransport));  // last: the user may delete this race
}

template class CConnectRaceT<CCmTransportTcp>;

}  // namespace talvo
