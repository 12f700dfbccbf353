// An HTTP server: no input of a client, in any pieces, and no operation of the application does harm. The output is a sequence
// of answers, and it does not depend on the pieces.

#include <functional>
#include <memory>
#include <vector>

#include "fuzz/fuzz_lower.h"
#include "talvo/connection/connection_manager.h"
#include "talvo/event/reactor_epoll.h"
#include "talvo/event/thread_manager.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/server/channel_http_server_acceptor.h"

namespace {

// The application: answers with the body, or performs the operation that the input chooses.
class CFuzzServer : public ICmChannelServerAcceptorSink {
public:
    CFuzzServer(BOOL aQuiet, DWORD aSeed) : m_bQuiet(aQuiet), m_Deeds(aSeed) {}

    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        m_Requests.push_back(std::make_unique<CRequest>(*this, aChannel));
        if (m_bQuiet || m_Deeds() % 4 != 0)
            aChannel->ReceiveRequest(m_Requests.back().get());
        Act(*m_Requests.back());
    }

private:
    struct CRequest : public ICmChannelHttpServerSink {
        CRequest(CFuzzServer& aServer, ICmChannelHttpServer* aChannel) : m_Server(aServer), m_pChannel(aChannel) {}
        void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
            FUZZ_CHECK(!m_bOver);
            m_strBody += aData.FlattenChained();
            m_Server.Act(*this);
        }
        void OnRequestEnd(ICmChannelHttpServer*) override {
            FUZZ_CHECK(!m_bOver);
            if (m_pChannel)
                m_pChannel->AnswerText(200, "text/plain", m_strBody);
            m_Server.Act(*this);
        }
        void OnSend(ICmTransport*, CCmTransportParameter*) override { m_Server.Act(*this); }
        void OnDisconnect(CmResult, ICmTransport*) override {
            FUZZ_CHECK(!std::exchange(m_bOver, TRUE));
            m_Server.Act(*this);
        }

        CFuzzServer& m_Server;
        CCmRefPtrT<ICmChannelHttpServer> m_pChannel;
        std::string m_strBody;
        BOOL m_bOver = FALSE;
    };

    void Act(CRequest& aRequest) {
        if (m_bQuiet || !aRequest.m_pChannel)
            return;
        const DWORD dwDeed = m_Deeds() % 16;
        const std::string strText(dwDeed * 1000, 'x');
        CCmMessageBlock block(static_cast<DWORD>(strText.size()), strText.data(), CCmMessageBlock::DONT_DELETE,
                              static_cast<DWORD>(strText.size()));
        BOOL bPause = dwDeed == 5;
        ICmChannelHttpServer& channel = *aRequest.m_pChannel;
        const std::function<void()> deeds[] = {[&] { channel.Answer(&block); },
                                               [&] { channel.BeginAnswer(5000); },
                                               [&] { channel.SendData(block); },
                                               [&] { channel.SendData(block); },
                                               [&] { channel.EndAnswer(); },
                                               [&] { channel.SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause); },
                                               [&] { channel.SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause); },
                                               [&] { aRequest.m_pChannel.Reset(); },
                                               [&] { channel.Disconnect(CM_OK); }};
        if (dwDeed < std::size(deeds))
            deeds[dwDeed]();
    }

    const BOOL m_bQuiet;
    std::minstd_rand m_Deeds;
    std::vector<std::unique_ptr<CRequest>> m_Requests;
};

void Turn() {
    ICmReactor* pReactor = CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN);
    for (int i = 0; i < 3; ++i)
        static_cast<CCmReactorEpoll*>(pReactor)->RunOnce(&CCmTimeValue::s_tvZero);
}

// The server's output to a client that sends these bytes, in pieces if there is a cutter, and then perhaps half-closes.
std::string Run(const std::string& aBytes, BOOL aEnds, CFuzzServer& aServer, CFuzzCutter* aCutter) {
    CCmRefPtrT<CCmChannelHttpServerAcceptor> pAcceptor(new CCmChannelHttpServerAcceptor(0));
    FUZZ_CHECK(pAcceptor->StartListen(&aServer, CCmInetAddr("127.0.0.1", 0)) == CM_OK);
    uint64_t ullMaxBody = 1000;
    pAcceptor->SetOption(CM_OPT_CHANNEL_SERVER_MAX_BODY, &ullMaxBody);
    const CCmRefPtrT<CFuzzLower> pClient(new CFuzzLower(aCutter));
    pAcceptor->Serve(pClient.Get());
    for (const std::string& strPiece : PiecesOf(aBytes, aCutter)) {
        pClient->Receive(strPiece);
        if (aCutter)
            pClient->MakeRoom();
    }
    if (aEnds)
        pClient->EndSide();
    pClient->TakeEverything();
    for (int i = 0; i < 20 && pClient->IsOpen(); ++i) {
        pClient->MakeRoom();
        Turn();
    }
    pClient->Vanish();
    pAcceptor.Reset();
    Turn();
    FUZZ_CHECK(std::string_view("HTTP/1.1 ").starts_with(pClient->GetSent().substr(0, 9)));
    return pClient->GetSent();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static const BOOL bStarted = [] {
        CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
        return CCmThreadManager::Instance()->InitMainThread(0, nullptr) == CM_OK && CCmConnectionManager::Instance();
    }();
    FUZZ_CHECK(bStarted);
    FuzzedDataProvider input(aData, aSize);
    const BOOL bQuiet = input.ConsumeBool();
    const auto wSeed = input.ConsumeIntegral<uint16_t>();
    const BOOL bEnds = wSeed % 2 == 1;
    CFuzzCutter cutter(input);
    const std::string strBytes = input.ConsumeRemainingBytesAsString();
    CFuzzServer server(bQuiet, wSeed);
    const std::string strCut = Run(strBytes, bEnds, server, &cutter);
    CFuzzServer other(bQuiet, wSeed);
    if (bQuiet)  // without the dates, which end at the same place
        FUZZ_CHECK(strCut.size() == Run(strBytes, bEnds, other, nullptr).size());
    return 0;
}
