// Protocol connections: any bytes, in any pieces, do no harm. The user gets the same messages whatever the pieces, and no
// upcall after the end.

#include <functional>
#include <list>
#include <utility>
#include <vector>

#include "fuzz/fuzz_lower.h"
#include "talvo/base/random_source.h"
#include "talvo/connection/protocol/len_pkg_conn.h"
#include "talvo/connection/protocol/pkg_conn_client.h"
#include "talvo/connection/protocol/pkg_conn_server.h"
#include "talvo/connection/protocol/pkg_sender.h"
#include "talvo/connection/protocol/rlb_conn_tcp_client.h"
#include "talvo/connection/protocol/rlb_conn_tcp_server.h"
#include "talvo/event/reactor_epoll.h"
#include "talvo/event/thread.h"
#include "talvo/event/timer_queue_ordered_list.h"
#include "talvo/testing/fake_clock.h"
#include "talvo/testing/upcall_log.h"
#include "talvo/transport/base_types.h"

namespace {

constexpr DWORD MAX_MESSAGE = 200;
constexpr DWORD LOWER_TYPE = 0x4000;  // of reliable clients

// A connector's attempt, which goes on until the run itself calls the connection.
struct CFuzzAttempt : ACmConnectorInternal {
    int Connect(const CCmInetAddr&, CCmInetAddr*) override { return 0; }
    void Close() override {}
    static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings&) { return std::make_unique<CFuzzAttempt>(); }
};

// Channels and tokens follow from it.
void FillWithOnes(void*, void* aBytes, size_t aCount) { std::fill_n(static_cast<BYTE*>(aBytes), aCount, BYTE{1}); }

// Lends the calling thread a timer queue, and a reactor whose loop does not run.
class CFuzzThread : public ACmThread {
public:
    CFuzzThread() {
        CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
        CCmRandomSource::Replace(FillWithOnes, nullptr);
        FUZZ_CHECK(Create(CCmThreadManager::TT_MAIN) == CM_OK && m_Reactor.Open() == CM_OK);
        FUZZ_CHECK(cm_offer_base_type(LOWER_TYPE, {CFuzzAttempt::Make, nullptr}) == CM_OK);
    }
    void OnThreadRun() override {}
    ICmTimerQueue* GetTimerQueue() override { return &m_Timers; }
    ICmReactor* GetReactor() override { return &m_Reactor; }
    CCmFakeClock m_Clock;
    CCmTimerQueueOrderedList m_Timers;
    CCmReactorEpoll m_Reactor;
};

// Unless quiet, performs an operation in every upcall; the input chooses it.
class CFuzzUser : public talvo::CConnOwner, public ICmReconnectSink {
public:
    CFuzzUser(BOOL aQuiet, DWORD aSeed) : m_bQuiet(aQuiet), m_Deeds(aSeed) {
        m_Log.m_Receive = m_Log.m_Send = m_Log.m_Disconnect = [this] {
            FUZZ_CHECK(m_bOpen && (m_Log.m_Received.empty() || m_Log.m_Received.back().size() <= MAX_MESSAGE));
            m_bOpen = m_Log.m_nDisconnects == 0;
            Act();
        };
    }
    void OnOpened(CConnBase& aConn, CmResult aReason) override {
        m_bOpen = aReason == CM_OK;
        ICmReconnectSink* pGaps = this;
        if (m_bOpen && aConn.OpenWithSink(&m_Log) == CM_OK)
            aConn.SetOption(CM_OPT_TRANSPORT_RECONNECT_SINK, &pGaps);
        Act();
    }
    void OnSuspended(ICmTransport*, CmResult) override {
        FUZZ_CHECK(m_bOpen && !std::exchange(m_bSuspended, true));
        Act();
    }
    void OnResumed(ICmTransport*, DWORD) override {
        FUZZ_CHECK(m_bOpen && std::exchange(m_bSuspended, false));
        Act();
    }
    void Act() {
        const DWORD dwDeed = m_bQuiet || !m_pConn ? 0 : m_Deeds() % 256;
        if (dwDeed % 8 == 1) {
            const std::string strText(dwDeed, 'x');
            CCmMessageBlock block(dwDeed, strText.data(), CCmMessageBlock::DONT_DELETE, dwDeed);
            m_pConn->SendData(block);
        } else if (dwDeed % 8 == 2) {
            BOOL bCork = dwDeed > 100;
            m_pConn->SetOption(CM_OPT_TRANSPORT_CORK, &bCork);
        } else if (dwDeed == 3) {
            m_bOpen = FALSE;
            m_pConn->Disconnect(CM_OK);
        } else if (dwDeed == 4) {
            m_bOpen = FALSE;
            m_pConn.Reset();
        }
    }

    const BOOL m_bQuiet;
    std::minstd_rand m_Deeds;
    BOOL m_bOpen = FALSE;
    bool m_bSuspended = false;
    CCmUpcallLog m_Log;
    CCmRefPtrT<CConnBase> m_pConn;
};

// The messages of these bytes, which come in pieces if there is a cutter.
template <class Conn>
std::vector<std::string> Run(CFuzzUser& aUser, const std::string& aBytes, BOOL aDatagrams, CFuzzCutter* aCutter) {
    const CCmRefPtrT<CFuzzLower> pLower(new CFuzzLower(aCutter, aDatagrams));
    auto* pConn = new Conn;
    aUser.m_pConn = pConn;
    pConn->SetConnConnector(&aUser);
    DWORD dwMaxMessage = MAX_MESSAGE;
    pConn->SetOption(CS_OPT_MAX_MESSAGE_LEN, &dwMaxMessage);
    pConn->OnConnectIndication(CM_OK, pLower.Get(), nullptr);
    for (const std::string& strPiece : PiecesOf(aBytes, aCutter)) {
        pLower->Receive(strPiece);
        if (aCutter && aCutter->Next(4) == 0)
            pLower->MakeRoom();
    }
    pLower->Vanish();
    aUser.m_pConn.Reset();
    return aUser.m_Log.m_Received;
}

// aConnectPdu: the first byte of the peer's part of a handshake; 0: there is none.
template <class Conn>
void Check(FuzzedDataProvider& aInput, BOOL aDatagramsToo, char aConnectPdu) {
    const BOOL bDatagrams = aDatagramsToo && aInput.ConsumeBool();
    const BOOL bConnected = aInput.ConsumeBool();
    const BOOL bQuiet = aInput.ConsumeBool();
    const auto wSeed = aInput.ConsumeIntegral<uint16_t>();
    CFuzzCutter cutter(aInput);
    const std::string strHandshake = bConnected && aConnectPdu > 0 ? aConnectPdu + std::string("\0\0\0\0\0\0\17", 7) : "";
    const std::string strBytes = strHandshake + aInput.ConsumeRemainingBytesAsString();
    CFuzzUser cut(bQuiet, wSeed), whole(bQuiet, wSeed);
    const auto messages = Run<Conn>(cut, strBytes, bDatagrams, &cutter);
    if (bQuiet && !bDatagrams)
        FUZZ_CHECK(messages == Run<Conn>(whole, strBytes, bDatagrams, nullptr));
}

// One transport of a reliable connection.
struct CFuzzRound {
    BOOL m_bConnected;  // a connect PDU that fits comes first
    DWORD m_dwCounter;  // of it
    std::string m_strBytes;
};

std::string ConnectPdu(const CFuzzRound& aRound, BYTE aType, WORD aChannel, BOOL aToken, DWORD aTransport) {
    CCmMessageBlock block(CCsPduConnToken::LENGTH);
    CCsPduConnToken pdu(aTransport > 0 ? aRound.m_dwCounter : 0, aChannel, aType, CCsPduConnToken::CONN_TYPE);
    pdu.m_dwAttempt = aTransport;
    if (aTransport > 0 || aType == CS_PDU_TYPE_CONN_RESP)
        FillWithOnes(nullptr, pdu.m_Token.m_Bytes, sizeof pdu.m_Token.m_Bytes);
    if (aToken)
        pdu.Encode(block);
    else
        CCsPduConnReqResp(pdu.GetACK(), aChannel, aType).Encode(block);
    return block.FlattenChained();
}

// A client has one connection, which connects again. A server has one for each transport, which may hand it over to the first.
template <class Conn>
std::vector<std::string> RunReliable(CFuzzUser& aUser, const std::vector<CFuzzRound>& aRounds, BOOL aToken,
                                     CFuzzCutter* aCutter, CFuzzThread& aThread) {
    constexpr bool SERVER = std::is_same_v<Conn, CRlbConnTCPServer>;
    const auto pChannels = std::make_shared<talvo::CReliableChannels>();
    std::list<CFuzzUser> others;
    for (DWORD i = 0; i < aRounds.size(); ++i) {
        CFuzzUser& user = SERVER && i > 0 ? others.emplace_back(aUser.m_bQuiet, i) : aUser;
        if (SERVER || i == 0) {
            auto* pNew = new Conn;
            user.m_pConn = pNew;
            pNew->UseToken(aToken);
            pNew->SetConnConnector(&user);
            if constexpr (SERVER)
                pNew->SetChannels(pChannels);
            else
                pNew->SetTarget({LOWER_TYPE, {}, {}, FALSE, nullptr});
        }
        const WORD wChannel = aUser.m_pConn ? aUser.m_pConn->GetChannel() : 0;
        const CCmRefPtrT<CFuzzLower> pLower(new CFuzzLower(aCutter));
        if (user.m_pConn)
            static_cast<Conn*>(user.m_pConn.Get())->OnConnectIndication(CM_OK, pLower.Get(), nullptr);
        if (aRounds[i].m_bConnected)
            pLower->Receive(SERVER ? ConnectPdu(aRounds[i], CS_PDU_TYPE_CONN_REQ, wChannel, aToken, i)
                                   : ConnectPdu(aRounds[i], CS_PDU_TYPE_CONN_RESP, 7, aToken, i));
        for (const std::string& strPiece : PiecesOf(aRounds[i].m_strBytes, aCutter)) {
            pLower->Receive(strPiece);
            if (aCutter && aCutter->Next(4) == 0)
                pLower->MakeRoom();
        }
        pLower->Vanish();
        aThread.m_Clock.Advance(CCmTimeValue(31));  // longer than any wait for an attempt
        aThread.m_Timers.CheckExpire(nullptr);
    }
    aUser.m_pConn.Reset();
    pChannels->Close();
    return aUser.m_Log.m_Received;
}

template <class Conn>
void CheckReliable(FuzzedDataProvider& aInput, CFuzzThread& aThread) {
    const BOOL bToken = aInput.ConsumeBool();
    const BOOL bQuiet = aInput.ConsumeBool();
    const auto wSeed = aInput.ConsumeIntegral<uint16_t>();
    CFuzzCutter cutter(aInput);
    std::vector<CFuzzRound> rounds(3);
    for (CFuzzRound& round : rounds)
        round = {aInput.ConsumeBool(), aInput.ConsumeIntegral<uint16_t>(), aInput.ConsumeRandomLengthString(MAX_MESSAGE)};
    CFuzzUser cut(bQuiet, wSeed), whole(bQuiet, wSeed);
    const auto messages = RunReliable<Conn>(cut, rounds, bToken, &cutter, aThread);
    // Data in the same piece as a request is a violation, and data in the next one is not.
    if (bQuiet && std::ranges::all_of(rounds, &CFuzzRound::m_bConnected))
        FUZZ_CHECK(messages == RunReliable<Conn>(whole, rounds, bToken, nullptr, aThread));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static CFuzzThread& thread = *new CFuzzThread;  // the process's main thread until the end
    FuzzedDataProvider input(aData, aSize);
    const std::function<void()> kinds[] = {
        [&] { Check<CLenPkgConn>(input, FALSE, '\0'); },          [&] { Check<CPkgConnClient>(input, TRUE, '\2'); },
        [&] { Check<CPkgConnServer>(input, TRUE, '\1'); },        [&] { Check<CPkgSender>(input, TRUE, '\0'); },
        [&] { CheckReliable<CRlbConnTCPClient>(input, thread); }, [&] { CheckReliable<CRlbConnTCPServer>(input, thread); }};
    kinds[input.ConsumeIntegralInRange<int>(0, 5)]();
    thread.m_Timers.CheckExpire(nullptr);  // deletes the released objects
    return 0;
}
