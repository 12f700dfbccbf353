// Protocol connections: any bytes, in any pieces, do no harm. The user gets the messages of the bytes, and no upcall after the
// end.

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
    explicit CFuzzUser(FuzzedDataProvider& aInput)
        : m_bQuiet(aInput.ConsumeBool()), m_Deeds(aInput.ConsumeIntegral<uint16_t>()) {
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

DWORD NumberAt(const std::string& aBytes, size_t aAt) {
    DWORD dwNumber = 0;
    for (size_t i = 0; i < 4; ++i)
        dwNumber = dwNumber << 8 | static_cast<BYTE>(aBytes[aAt + i]);
    return dwNumber;
}

// The messages in a stream of a connected side, up to the first byte that ends it. aHeader: the fixed part of data PDUs; 4:
// there are only lengths.
std::vector<std::string> MessagesOf(const std::string& aBytes, size_t aHeader, char aConnectPdu) {
    std::vector<std::string> messages;
    for (size_t i = 0; i < aBytes.size();) {
        const char cType = aHeader == 4 ? '\6' : aBytes[i];
        const size_t stFixed = cType == 4 ? 5 : cType > 0 && cType == aConnectPdu ? 8 : cType == 5 || cType == 6 ? aHeader : 0;
        if (stFixed == 0 || i + stFixed > aBytes.size())
            break;
        i += stFixed;
        if (cType != 5 && cType != 6)
            continue;
        const DWORD dwLength = NumberAt(aBytes, i - 4);
        if (dwLength > std::min<size_t>(MAX_MESSAGE, aBytes.size() - i) || (aHeader == 4 && dwLength == 0))
            break;
        messages.push_back(aBytes.substr(i, dwLength));
        i += dwLength;
    }
    return messages;
}

template <class Conn>
void Run(FuzzedDataProvider& aInput, size_t aHeader, char aConnectPdu) {
    const BOOL bDatagrams = aHeader != 4 && aInput.ConsumeBool();
    const BOOL bConnected = aInput.ConsumeBool();
    CFuzzUser user(aInput);
    CFuzzCutter cutter(aInput);
    const CCmRefPtrT<CFuzzLower> pLower(new CFuzzLower(&cutter, bDatagrams));
    auto* pConn = new Conn;
    user.m_pConn = pConn;
    pConn->SetConnConnector(&user);
    DWORD dwMaxMessage = MAX_MESSAGE;
    pConn->SetOption(CS_OPT_MAX_MESSAGE_LEN, &dwMaxMessage);
    pConn->OnConnectIndication(CM_OK, pLower.Get(), nullptr);

    if (bConnected && aConnectPdu > 0)
        pLower->Receive(aConnectPdu + std::string("\0\0\0\0\0\0\17", 7));
    // One request of another type ends a server's connection, so the messages of those inputs are not predicted.
    const BOOL bForetold = user.m_bQuiet && user.m_bOpen && !bDatagrams && aConnectPdu != 1;
    const std::string strBytes = aInput.ConsumeRemainingBytesAsString();
    for (const std::string& strPiece : PiecesOf(strBytes, &cutter)) {
        pLower->Receive(strPiece);
        if (pLower->IsOpen() && cutter.Next(4) == 0)
            pLower->MakeRoom();
    }
    if (bForetold)
        FUZZ_CHECK(user.m_Log.m_Received == MessagesOf(strBytes, aHeader, aConnectPdu));
    pLower->Vanish();
    user.m_pConn.Reset();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static CFuzzThread& thread = *new CFuzzThread;  // the process's main thread until the end
    FuzzedDataProvider input(aData, aSize);
    const std::function<void()> kinds[] = {
        [&] { Run<CLenPkgConn>(input, 4, '\0'); }, [&] { Run<CPkgConnClient>(input, 5, '\2'); },
        [&] { Run<CPkgConnServer>(input, 5, '\1'); }, [&] { Run<CPkgSender>(input, 9, '\0'); }};
    kinds[input.ConsumeIntegralInRange<int>(0, 3)]();
    thread.m_Timers.CheckExpire(nullptr);  // deletes the released objects
    return 0;
}
