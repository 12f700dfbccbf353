// A stream over a connection of this library, in messages of 16 KiB. The application's thread is the main thread; connector,
// acceptor and connection are proxies of what lives in the network thread. No option is set.
//
//   bench_wan_talvo recv PORT BYTES TYPE            listens, takes one connection, checks every byte, closes
//   bench_wan_talvo send ADDRESS PORT BYTES TYPE    connects, sends, waits for the close
//
// TYPE: raw, length, package, or nopartial.
#include <algorithm>
#include <optional>
#include <string>

#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_messages.h"
#include "benchmarks/support/talvo_process.h"
#include "benchmarks/wan/pattern.h"

namespace {

using bench::Expect;

constexpr uint64_t MESSAGE = 16 * 1024;

// Main thread.
class CEnd : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    CEnd(DWORD aType, uint64_t aBytes) : m_dwType(aType), m_ullBytes(aBytes) {}

    void Listen(const CCmInetAddr& aAddr) {
        Expect(CCmConnectionManager::Instance()->CreateConnectionServer(m_dwType, m_pAcceptor.ParaOut()));
        Expect(m_pAcceptor->StartListen(this, aAddr));
        bench::PrintReady();
    }

    void Connect(const CCmInetAddr& aAddr) {
        m_bSends = true;
        Expect(CCmConnectionManager::Instance()->CreateConnectionClient(m_dwType, m_pConnector.ParaOut()));
        m_pConnector->AsycConnect(this, aAddr);
    }

    void Close() {
        m_pAcceptor.Reset();
        m_pConnector.Reset();
        m_pConnection.Reset();
    }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        Expect(aReason);
        m_pConnection = aTrpt;
        Expect(aTrpt->OpenWithSink(this));
        if (m_bSends)
            Stream();
    }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        for (const CCmMessageBlock* pBlock = &aData; pBlock; pBlock = pBlock->GetNext())
            m_Pattern.Check(pBlock->GetTopLevelReadPtr(), pBlock->GetTopLevelLength());
        if (m_Pattern.GetDone() < m_ullBytes)
            return;
        m_pConnection->Disconnect(CM_OK);
        StopLoop();
    }

    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        if (m_bSends)
            Stream();
    }

    // The receiver leaves when it has everything.
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        if (m_Refused || m_Pattern.GetDone() < m_ullBytes)
            Expect(aReason);
        StopLoop();
    }

private:
    static void StopLoop() { CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop(); }

    // Until the library has enough; what it did not take is sent first when it says so.
    void Stream() {
        while (m_Refused || MakeNext()) {
            const CmResult rv = m_pConnection->SendData(*m_Refused);
            if (rv == CM_ERROR_PARTIAL_DATA)
                return;  // OnSend follows
            Expect(rv);
            m_Refused.reset();
        }
    }

    bool MakeNext() {
        const auto dwLength = static_cast<DWORD>(std::min(m_ullBytes - m_Pattern.GetDone(), MESSAGE));
        if (dwLength == 0)
            return false;
        m_Refused.emplace(dwLength);
        std::copy_n(m_Pattern.Next(), dwLength, m_Refused->GetTopLevelWritePtr());
        m_Refused->AdvanceTopLevelWritePtr(dwLength);
        m_Pattern.Advance(dwLength);
        return true;
    }

    const DWORD m_dwType;
    const uint64_t m_ullBytes;
    bool m_bSends = false;
    bench::CPattern m_Pattern;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pConnection;
    std::optional<CCmMessageBlock> m_Refused;  // made and not taken yet
};

}  // namespace

int main(int argc, char** argv) {
    const std::string strRole = argc > 1 ? argv[1] : "";
    const bool bSends = strRole == "send";
    const DWORD dwType = argc > 1 ? bench::ConnectionType(argv[argc - 1]) : 0;
    if ((strRole != "recv" && !bSends) || argc != (bSends ? 6 : 5) || dwType == 0) {
        std::fputs("usage: bench_wan_talvo recv PORT BYTES TYPE | send ADDRESS PORT BYTES TYPE\n", stderr);
        return 2;
    }
    bench::CTalvoProcess process(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    CEnd end(dwType, std::strtoull(argv[argc - 2], nullptr, 10));
    const CCmInetAddr addr(bSends ? argv[2] : "0.0.0.0", static_cast<WORD>(std::atoi(argv[argc - 3])));
    if (bSends)
        end.Connect(addr);
    else
        end.Listen(addr);
    CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_MAIN)->OnThreadRun();
    end.Close();
    return 0;
}
