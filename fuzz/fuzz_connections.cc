// Protocol connections: any bytes, in any pieces, do no harm. The user gets the same messages whatever the pieces, and no
// upcall after the end.

#include <functional>
#include <vector>

#include "fuzz/fuzz_lower.h"
#include "talvo/connection/protocol/len_pkg_conn.h"
#include "talvo/connection/protocol/pkg_conn_client.h"
#include "talvo/connection/protocol/pkg_conn_server.h"
#include "talvo/connection/protocol/pkg_sender.h"
#include "talvo/event/thread.h"
#include "talvo/event/timer_queue_ordered_list.h"
#include "talvo/testing/upcall_log.h"

namespace {

constexpr DWORD MAX_MESSAGE = 200;

// Lends the calling thread a timer queue.
class CFuzzThread : public ACmThread {
public:
    CFuzzThread() { FUZZ_CHECK(Create(CCmThreadManager::TT_MAIN) == CM_OK); }
    void OnThreadRun() override {}
    ICmTimerQueue* GetTimerQueue() override { return &m_Timers; }
    CCmTimerQueueOrderedList m_Timers;
};

// Unless quiet, performs an operation in every upcall; the input chooses it.
class CFuzzUser : public talvo::CConnOwner {
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
        if (m_bOpen)
            aConn.OpenWithSink(&m_Log);
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static CFuzzThread& thread = *new CFuzzThread;  // the process's main thread until the end
    FuzzedDataProvider input(aData, aSize);
    const std::function<void()> kinds[] = {
        [&] { Check<CLenPkgConn>(input, FALSE, '\0'); }, [&] { Check<CPkgConnClient>(input, TRUE, '\2'); },
        [&] { Check<CPkgConnServer>(input, TRUE, '\1'); }, [&] { Check<CPkgSender>(input, TRUE, '\0'); }};
    kinds[input.ConsumeIntegralInRange<int>(0, 3)]();
    thread.m_Timers.CheckExpire(nullptr);  // deletes the released objects
    return 0;
}
