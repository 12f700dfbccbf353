// Fetches a URL, prints its body and ends:   http_get http://127.0.0.1:8080/
#include <cstdio>

#include "talvo/talvo.h"

class Fetch : public ICmChannelSink {
public:
    bool Open(const char* aUrl) {
        CCmRefPtrT<CCmHttpUrl> pUrl;
        CCmChannelManager* pManager = CCmChannelManager::Instance();
        return pManager->CreateUrl(pUrl.ParaOut(), aUrl) == CM_OK &&
               pManager->CreateChannelHttpClient(m_pChannel.ParaOut(), pUrl.Get()) == CM_OK &&
               m_pChannel->SetRequestHeader(CCmHttpAtomList::Accept, "*/*") == CM_OK && m_pChannel->AsyncOpen(this) == CM_OK;
    }
    // The head of the answer has come.
    void OnConnect(CmResult, ICmChannel*) override { std::fprintf(stderr, "status %ld\n", m_pChannel->GetResponseStatus()); }
    // The body, piece by piece.
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        for (const CCmMessageBlock* p = &aData; p; p = p->GetNext())
            std::fwrite(p->GetTopLevelReadPtr(), 1, p->GetTopLevelLength(), stdout);
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    // The body is complete, or the exchange has failed.
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        CCmString strWhat;  // "there is no connection to the server",
        CCmFailure cause;   // "connect to 127.0.0.1:8080: Connection refused"
        m_pChannel->GetFailure(strWhat);
        m_pChannel->GetOption(CM_OPT_CHANNEL_LAST_FAILURE, &cause);
        if (aReason != CM_OK)
            std::fprintf(stderr, "failed: %s (%s)\n", strWhat.c_str(), cause.ToString().c_str());
        m_bWhole = aReason == CM_OK;
        CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop();
    }
    bool IsWhole() const { return m_bWhole; }

private:
    CCmRefPtrT<ICmChannelHttpClient> m_pChannel;
    bool m_bWhole = false;
};

int main(int argc, char** argv) {
    CCmThreadManager::Instance()->InitMainThread(argc, argv);
    Fetch fetch;
    if (argc != 2 || !fetch.Open(argv[1])) {
        std::fprintf(stderr, "usage: http_get http://HOST[:PORT]/PATH\n");
        return 2;
    }
    CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->RunEventLoop();
    return fetch.IsWhole() ? 0 : 1;
}
