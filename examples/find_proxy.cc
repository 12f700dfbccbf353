// Finds the proxies that the user's settings give for URLs:   find_proxy https://www.example.com/...
#include <cstdio>

#include "talvo/talvo.h"

class Finder : public ICmObserver {
public:
    Finder(int aCount, char** aUrls) : m_nCount(aCount), m_ppUrls(aUrls) {}
    ~Finder() override { CCmProxyDiscovery::Instance()->CancelFind(this); }

    // Asks for one URL after the other, until an answer has to be waited for.
    void Go() {
        while (m_nNext < m_nCount) {
            CCmRefPtrT<CCmProxyAnswer> pKept;
            const char* pUrl = m_ppUrls[m_nNext];
            const CmResult rv = CCmProxyDiscovery::Instance()->Find(pKept.ParaOut(), pUrl, this);
            if (rv == CM_ERROR_WOULD_BLOCK)
                return;  // OnObserve follows
            if (pKept)
                Show(*pKept);
            else
                Fail(cm_result_name(rv));
        }
        CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop();
    }
    bool HasFailed() const { return m_bFailed; }

private:
    // The answer, from the loop of the thread that has asked.
    void OnObserve(const char*, void* aData) override {
        Show(*static_cast<CCmProxyAnswer*>(aData));
        Go();
    }
    void Show(const CCmProxyAnswer& aAnswer) {
        if (aAnswer.GetResult() != CM_OK)
            return Fail(cm_result_name(aAnswer.GetResult()));
        const CCmString strRoute = aAnswer.GetRoute().GetScriptText();
        std::printf("%s: %s (%s)\n", m_ppUrls[m_nNext++], strRoute.c_str(), aAnswer.GetSource().c_str());
    }
    void Fail(const char* aWhy) {
        std::printf("%s: %s\n", m_ppUrls[m_nNext++], aWhy);
        m_bFailed = true;
    }

    const int m_nCount;
    char** const m_ppUrls;
    int m_nNext = 0;
    bool m_bFailed = false;
};

int main(int argc, char** argv) {
    CCmThreadManager::Instance()->InitMainThread(argc, argv);
    if (!CCmConnectionManager::Instance() || !CCmProxyDiscovery::Instance())
        return 1;
    Finder finder(argc - 1, argv + 1);
    finder.Go();
    CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->RunEventLoop();  // runs all callbacks
    return finder.HasFailed() ? 1 : 0;
}
