#include "tests/sim/sim_transport.h"

#include <algorithm>
#include <utility>

#include "talvo/transport/udp/datagram_sender.h"
#include "tests/sim/sim_watch.h"

namespace {

constexpr DWORD MAX_PIECES = 64;

}  // namespace

CSimTransport::CSimTransport(CSimNetwork& aNetwork, BOOL aDatagrams, WORD aPort, WORD aPeerPort)
    : m_Network(aNetwork), m_bDatagrams(aDatagrams), m_wPort(aPort), m_wPeerPort(aPeerPort) {
    m_Network.m_Ends[GetKey_i()] = this;
}

CSimTransport::~CSimTransport() { Close_i(); }

void CSimTransport::OnReferenceDestory() {
    Close_i();
    CCmReferenceControlTimerDeleteT::OnReferenceDestory();
}

CSimTransport* CSimTransport::Find(CSimNetwork& aNetwork, DWORD aKey) {
    const auto it = aNetwork.m_Ends.find(aKey);
    return it != aNetwork.m_Ends.end() ? it->second : nullptr;
}

// By key: the end may be gone by then.
void CSimTransport::After_i(int64_t aDelay, DWORD aKey, void (CSimTransport::*aRun)()) {
    m_Network.After(aDelay, [&network = m_Network, aKey, aRun] {
        if (CSimTransport* pEnd = Find(network, aKey))
            (pEnd->*aRun)();
    });
}

CmResult CSimTransport::OpenWithSink(ICmTransportSink* aSink) {
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    if (m_bClosed)
        return CM_ERROR_NOT_INITIALIZED;
    const BOOL bOpen = std::exchange(m_pSink, aSink) != nullptr;
    if (m_Network.m_pWatch && !bOpen)
        m_Network.m_pWatch->Opened(GetKey_i());
    ScheduleDelivery_i();
    return CM_OK;
}

CmResult CSimTransport::Disconnect(CmResult) {
    Close_i();
    return CM_OK;
}

void CSimTransport::Close_i() {
    m_pSink = nullptr;
    if (std::exchange(m_bClosed, TRUE))
        return;
    m_Network.Note("close", m_wPort, m_wPeerPort);
    m_Network.m_Ends.erase(GetKey_i());
    if (m_Network.m_pWatch)
        m_Network.m_pWatch->Closed(GetKey_i(), !m_bEndArrived && !m_bBroken);
    if (!m_bDatagrams && !m_bBroken)
        m_Network.After(std::max(m_llLastArrival - m_Network.Now(), m_Network.RandomDelay()),
                        [&network = m_Network, dwKey = GetPeerKey_i()] {
                            network.Arrive([&network, dwKey] {
                                if (CSimTransport* pEnd = Find(network, dwKey))
                                    pEnd->ArriveEnd_i();
                            });
                        });
}

CmResult CSimTransport::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    if (aPara)
        aPara->m_dwHaveSent = 0;
    if (m_bClosed)
        return CM_ERROR_NOT_INITIALIZED;
    iovec pieces[talvo::MAX_DATAGRAM_PIECES + 1];
    const DWORD dwPieces = aData.FillIov(pieces, m_bDatagrams ? talvo::MAX_DATAGRAM_PIECES + 1 : MAX_PIECES);
    std::string strBytes;
    for (DWORD i = 0; i < dwPieces; ++i)
        strBytes.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
    if (m_Network.m_pWatch)
        m_Network.m_pWatch->Sends(GetKey_i(), strBytes);
    if (!m_bDatagrams && m_Network.Random(10000) < m_Network.GetWeather().m_dwBroken)
        Break_i();
    if (m_bBroken)
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    if (m_bDatagrams && (strBytes.size() > talvo::MAX_DATAGRAM_LENGTH || dwPieces > talvo::MAX_DATAGRAM_PIECES))
        return CM_ERROR_INVALID_ARG;

    const CSimWeather& weather = m_Network.GetWeather();
    size_t stTaken = strBytes.size();
    if (!m_bDatagrams)
        stTaken = std::min<size_t>(stTaken, weather.m_dwWindow - std::min(weather.m_dwWindow, m_dwOnTheWay));
    if (m_Network.Chance(weather.m_dwRefused))
        stTaken = m_bDatagrams ? 0 : m_Network.Random(stTaken + 1);
    m_Network.Note("send", GetKey_i(), stTaken);
    strBytes.resize(stTaken);
    aData.AdvanceChainedReadPtr(static_cast<DWORD>(stTaken));
    if (aPara)
        aPara->m_dwHaveSent = static_cast<DWORD>(stTaken);
    if (stTaken > 0 && !m_bDatagrams)
        SendStream_i(strBytes);
    if (stTaken > 0 && m_bDatagrams && !m_Network.Chance(weather.m_dwLost))
        SendDatagram_i(Mangle_i(strBytes));
    if (stTaken > 0 && m_bDatagrams && m_Network.Chance(weather.m_dwDoubled))
        SendDatagram_i(strBytes);
    if (aData.GetChainedLength() == 0)
        return CM_OK;
    m_bNeedOnSend = TRUE;
    After_i(m_Network.RandomDelay(), GetKey_i(), &CSimTransport::TellRoom_i);
    return CM_ERROR_PARTIAL_DATA;
}

void CSimTransport::SendStream_i(const std::string& aBytes) {
    m_dwOnTheWay += static_cast<DWORD>(aBytes.size());
    m_llLastArrival = std::max(m_llLastArrival, m_Network.Now() + m_Network.RandomDelay());
    m_Network.After(m_llLastArrival - m_Network.Now(), [&network = m_Network, dwKey = GetPeerKey_i(), aBytes] {
        network.Arrive([&network, dwKey, aBytes] {
            if (CSimTransport* pEnd = Find(network, dwKey))
                pEnd->Arrive(aBytes);
        });
    });
}

// What the weather makes of it: nothing that a receiver could take for another datagram.
std::string CSimTransport::Mangle_i(std::string aBytes) {
    if (!m_Network.Chance(m_Network.GetWeather().m_dwMangled))
        return aBytes;
    if (m_Network.Chance(50))
        aBytes.resize(m_Network.Random(aBytes.size()));
    else
        aBytes.append(1 + m_Network.Random(20), '\4');
    return aBytes;
}

// Each has a delay of its own, so they overtake each other. To an end, to somebody who listens, or back as a refusal.
void CSimTransport::SendDatagram_i(const std::string& aBytes) {
    m_Network.After(m_Network.RandomDelay(), [&network = m_Network, wPort = m_wPort, wPeerPort = m_wPeerPort, aBytes] {
        if (network.GetWeather().m_bSilent)
            return;
        const auto acceptor = network.m_Acceptors.find(wPeerPort);
        if (CSimTransport* pEnd = Find(network, KeyOf(wPeerPort, wPort)))
            pEnd->Arrive(aBytes);
        else if (acceptor != network.m_Acceptors.end())
            acceptor->second->Accept(new CSimTransport(network, TRUE, wPeerPort, wPort), aBytes);
        else if (CSimTransport* pSender = Find(network, KeyOf(wPort, wPeerPort)))
            pSender->End_i();
    });
}

void CSimTransport::Arrive(std::string aBytes) {
    m_Network.Note("arrive", GetKey_i(), aBytes.size());
    if (!m_bBroken)
        m_Ready.push_back(std::move(aBytes));
    ScheduleDelivery_i();
}

// The peer has closed, behind everything that it has sent.
void CSimTransport::ArriveEnd_i() {
    m_bEndArrived = TRUE;
    ScheduleDelivery_i();
}

void CSimTransport::ScheduleDelivery_i() {
    if (m_pSink && !m_bPaused && (m_bEndArrived || !m_Ready.empty()) && !std::exchange(m_bDeliveryDue, TRUE))
        After_i(0, GetKey_i(), &CSimTransport::Deliver_i);
}

// What one read brings: a datagram, or any part of what a stream has.
std::string CSimTransport::TakeReady_i() {
    std::string strBytes = std::move(m_Ready.front());
    m_Ready.pop_front();
    if (m_bDatagrams)
        return strBytes;
    const DWORD dwMaxPiece = m_Network.GetWeather().m_dwMaxPiece;
    for (; !m_Ready.empty() && strBytes.size() < dwMaxPiece; m_Ready.pop_front())
        strBytes += m_Ready.front();
    const size_t stPiece = m_Network.Chance(50) ? dwMaxPiece : 1 + m_Network.Random(dwMaxPiece);
    if (stPiece < strBytes.size())
        m_Ready.push_front(strBytes.substr(stPiece));
    strBytes.resize(std::min(stPiece, strBytes.size()));
    if (CSimTransport* pPeer = Find(m_Network, GetPeerKey_i())) {
        pPeer->m_dwOnTheWay -= static_cast<DWORD>(strBytes.size());
        After_i(m_Network.RandomDelay(), GetPeerKey_i(), &CSimTransport::TellRoom_i);
    }
    return strBytes;
}

void CSimTransport::Deliver_i() {
    m_bDeliveryDue = FALSE;
    if (!m_pSink || m_bPaused || m_bBroken)
        return;
    if (m_Ready.empty()) {
        End_i();
        return;
    }
    std::string strBytes = TakeReady_i();
    ScheduleDelivery_i();
    m_Network.Note("deliver", GetKey_i(), strBytes.size());
    const auto dwLength = static_cast<DWORD>(strBytes.size());
    CCmMessageBlock block(dwLength, strBytes.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    if (m_Network.m_pWatch)
        m_Network.m_pWatch->Arrives(GetKey_i(), strBytes);
    const DWORD dwKey = GetKey_i();
    CSimNetwork& network = m_Network;
    m_pSink->OnReceive(block, this, nullptr);
    if (network.m_pWatch)
        network.m_pWatch->Received(dwKey, strBytes);
    std::fill(strBytes.begin(), strBytes.end(), '\xEE');  // who keeps a view shall notice
}

void CSimTransport::TellRoom_i() {
    if (!m_bNeedOnSend || !m_pSink || m_bBroken || (!m_bDatagrams && m_dwOnTheWay >= m_Network.GetWeather().m_dwWindow))
        return;
    m_bNeedOnSend = FALSE;
    m_Network.Note("room", GetKey_i());
    m_pSink->OnSend(this, nullptr);
}

// The link is cut: sends fail, and after a while both sinks are told.
void CSimTransport::Break_i() {
    for (const DWORD dwKey : {GetKey_i(), GetPeerKey_i()}) {
        CSimTransport* pEnd = Find(m_Network, dwKey);
        if (pEnd && !std::exchange(pEnd->m_bBroken, TRUE))
            After_i(m_Network.RandomDelay(), dwKey, &CSimTransport::End_i);
    }
}

void CSimTransport::End_i() {
    ICmTransportSink* pSink = m_pSink;
    m_bEndArrived = TRUE;
    Close_i();
    if (pSink)
        pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_ERROR, this);
}

CmResult CSimTransport::SetOption(DWORD aCommand, void* aArg) {
    if (aCommand != CM_OPT_TRANSPORT_PAUSE_READING || !aArg)
        return CM_ERROR_INVALID_ARG;
    m_bPaused = *static_cast<BOOL*>(aArg);
    ScheduleDelivery_i();
    return CM_OK;
}

CmResult CSimTransport::GetOption(DWORD aCommand, void* aArg) {
    if (aCommand == CM_OPT_TRANSPORT_TRAN_TYPE)
        *static_cast<DWORD*>(aArg) = m_bDatagrams ? CM_TRANSPORT_TYPE_UDP : CM_TRANSPORT_TYPE_TCP;
    else if (aCommand == CM_OPT_TRANSPORT_LOCAL_ADDR || aCommand == CM_OPT_TRANSPORT_PEER_ADDR)
        static_cast<CCmInetAddr*>(aArg)->Set("127.0.0.1", aCommand == CM_OPT_TRANSPORT_LOCAL_ADDR ? m_wPort : m_wPeerPort);
    else if (aCommand == CM_OPT_TRANSPORT_UNACKNOWLEDGED && !m_bDatagrams)
        *static_cast<DWORD*>(aArg) = m_dwOnTheWay;
    else
        return CM_ERROR_INVALID_ARG;
    return CM_OK;
}

CmResult CSimAcceptor::StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) {
    if (m_pSink)
        return CM_ERROR_ALREADY_INITIALIZED;
    m_pSink = aSink;
    m_wPort = aAddrListen.GetPort();
    m_Network.m_Acceptors[m_wPort] = this;
    return CM_OK;
}

CmResult CSimAcceptor::StopListen(CmResult) {
    if (std::exchange(m_pSink, nullptr))
        m_Network.m_Acceptors.erase(m_wPort);
    if (m_Network.m_pWatch)
        m_Network.m_pWatch->Stopped();
    return CM_OK;
}

// As the sockets' acceptors, it touches nothing of itself once the sink was told.
void CSimAcceptor::Accept(const CCmRefPtrT<CSimTransport>& aTransport, const std::string& aFirst) {
    m_Network.Note("accept", m_wPort);
    m_pSink->OnConnectIndication(CM_OK, aTransport.Get(), this);
    if (!aFirst.empty() && aTransport->GetReference() > 1)
        aTransport->Arrive(aFirst);
}

void CSimConnector::AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue*, CCmInetAddr*) {
    if (!aSink || m_pAttempt)
        return;
    m_pAttempt = std::make_shared<CAttempt>(CAttempt{aSink, aAddrPeer.GetPort()});
    m_Network.After(2 * m_Network.RandomDelay(), [this, pAttempt = std::weak_ptr<CAttempt>(m_pAttempt)] {
        if (!pAttempt.expired())  // else this connector is gone, too, or does something else
            Finish_i();
    });
}

void CSimConnector::Finish_i() {
    const auto [pSink, wPeerPort] = *std::exchange(m_pAttempt, nullptr);
    if (!m_bDatagrams && m_Network.m_Acceptors.count(wPeerPort) == 0) {
        pSink->OnConnectIndication(CM_ERROR_NETWORK_CONNECT_ERROR, nullptr, this);
        return;
    }
    const WORD wPort = m_Network.NewPort();
    const CCmRefPtrT<CSimTransport> pTransport(new CSimTransport(m_Network, m_bDatagrams, wPort, wPeerPort));
    if (!m_bDatagrams)
        Answer_i(wPeerPort, wPort);
    pSink->OnConnectIndication(CM_OK, pTransport.Get(), this);
}

// The other end of a stream is there at once; the acceptor hears of it when it comes to look.
void CSimConnector::Answer_i(WORD aPort, WORD aPeerPort) {
    const CCmRefPtrT<CSimTransport> pAnswer(new CSimTransport(m_Network, FALSE, aPort, aPeerPort));
    m_Network.After(m_Network.RandomDelay(), [&network = m_Network, aPort, pAnswer] {
        network.Arrive([&network, aPort, pAnswer] {
            const auto acceptor = network.m_Acceptors.find(aPort);
            if (acceptor != network.m_Acceptors.end())
                acceptor->second->Accept(pAnswer);
        });
    });
}
