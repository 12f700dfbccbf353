// A source of routes that answers as the test says.
#pragma once

#include <utility>

#include "talvo/transport/proxy_source.h"
#include "tests/support/test.h"

// Answers from the test: the route of each question, or none before Answer.
class CTestSource final : public ICmProxySource {
public:
    CTestSource() { Set(this); }
    ~CTestSource() override { Set(m_pBefore); }

    CmResult Ask(const CCmString& aUrl, ICmProxySourceSink& aSink, CCmProxyRoute& aRoute) override {
        m_Urls.push_back(aUrl);
        m_pSink = m_bNow ? nullptr : &aSink;
        aRoute = m_Route;
        return m_bNow ? m_Now : CM_ERROR_WOULD_BLOCK;
    }
    void Cancel(ICmProxySourceSink& aSink) override {
        EXPECT_EQ(m_pSink, &aSink);
        m_pSink = nullptr;
    }
    void Answer(CmResult aReason = CM_OK) { std::exchange(m_pSink, nullptr)->OnProxyRoute(aReason, m_Route); }

    std::vector<CCmString> m_Urls;
    CCmProxyRoute m_Route;
    BOOL m_bNow = TRUE;
    CmResult m_Now = CM_OK;  // with m_bNow
    ICmProxySourceSink* m_pSink = nullptr;

private:
    ICmProxySource* const m_pBefore = Get();
};
