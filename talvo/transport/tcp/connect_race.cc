#include "talvo/transport/tcp/connect_race.h"

#include <cerrno>
#include <new>
#include <utility>

namespace talvo {

namespace {

constexpr long STAGGER_USEC = 250000;

}  // namespace

template <class TransportType>
int CConnectRaceT<TransportType>::Start(std::vector<CCmInetAddr> aAddrs, const CCmInetAddr& aAddrLocal,
                                        const CSocketSettings& aSockets, CCmRefPtrT<TransportType>& aTransport) {
    Stop();
    m_Attempts.reserve(aAddrs.size());
    m_Addrs = std::move(aAddrs);
    m_AddrLocal = aAddrLocal;
    m_Sockets = aSockets;
    return StartNext_i(aTransport);
}

template <class TransportType>
void CConnectRaceT<TransportType>::Stop() {
    m_Attempts.clear();
    m_Addrs.clear();
    m_stNext = 0;
    m_pReactor->CancelTimer(this);
}

// Skips addresses that fail at once. Results as Start; -1: there are no more addresses.
template <class TransportType>
int CConnectRaceT<TransportType>::StartNext_i(CCmRefPtrT<TransportType>& aTransport) {
    while (m_stNext < m_Addrs.size()) {
        const CCmInetAddr& addr = m_Addrs[m_stNext++];
        std::unique_ptr<CAttempt> pAttempt(new (std::nothrow) CAttempt(m_pReactor, *this, m_pMaker));
        if (!pAttempt) {
            m_Failure = CCmFailure(ENOMEM, "connect to", addr);
            continue;
        }
        const int nRv = pAttempt->Start(addr, m_AddrLocal, m_Sockets);
        if (nRv == -1) {
            m_Failure = pAttempt->GetFailure();
            continue;
        }
        if (nRv == 0) {
            aTransport = pAttempt->TakeTransport();
            return 0;
        }
        m_Attempts.push_back(std::move(pAttempt));
        if (m_stNext < m_Addrs.size())
            m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue(0, STAGGER_USEC), 1);
        return 1;
    }
    return -1;
}

template <class TransportType>
void CConnectRaceT<TransportType>::OnTimeout(const CCmTimeValue&, void*) {
    GoOn_i();
}

template <class TransportType>
void CConnectRaceT<TransportType>::OnAttemptDone(CAttempt& aAttempt, int aError) {
    if (aError == 0) {
        Done_i(aAttempt.TakeTransport());
        return;
    }
    m_Failure = aAttempt.GetFailure();
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
    Stop();
    m_User.OnRaceDone(std::move(aTransport));  // last: the user may delete this race
}

template class CConnectRaceT<CCmTransportTcp>;

}  // namespace talvo
