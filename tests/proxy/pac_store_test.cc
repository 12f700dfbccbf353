#include "talvo/proxy/script/pac_store.h"

#include "talvo/proxy/script/pac_expiry.h"
#include "talvo/proxy/script/pac_utf8.h"
#include "talvo/testing/scripted_http.h"
#include "tests/support/network_fixture.h"

namespace talvo {

namespace {

struct CTextLog : IPacTextSink, IPacTextWatcher {
    void OnPacText(CmResult aReason, const CPacTextPtr& aText, const CCmString& aError) override {
        m_Reasons.push_back(aReason);
        m_pText = aText;
        m_strError = aError;
    }
    void OnPacTextChanged(const CCmString& aUrl) override { m_strChanged = aUrl; }
    std::vector<CmResult> m_Reasons;
    CPacTextPtr m_pText;
    CCmString m_strError, m_strChanged;
};

CCmScriptedAnswer Answer(const std::string& aStatus, const std::string& aHeaders, const std::string& aBody) {
    return CCmScriptedAnswer::Make(aStatus, aHeaders, aBody);
}

}  // namespace

class PacStoreTest : public testing::Test {
protected:
    // "": the fetch has failed, and m_Log has the cause.
    CCmString Get(const CCmString& aUrl) {
        CPacTextPtr pText;
        m_Log.m_Reasons.clear();
        m_Result = m_Store.Get(aUrl, pText, m_Log);
        if (m_Result == CM_ERROR_WOULD_BLOCK) {
            RunUntil([&] { return !m_Log.m_Reasons.empty(); });
            pText = m_Log.m_pText;
        }
        return pText ? pText->m_strText : "";
    }
    template <class Condition>
    void RunUntil(Condition aCondition) {
        m_Network.RunUntil([&] {
            CCmScriptedHttp::Play();
            return aCondition();
        });
    }
    void Wait(time_t aSeconds) { m_Clock.Advance(CCmTimeValue(aSeconds)); }

    CCmFakeClock m_Clock;
    const CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    const CCmScriptedHttp m_Http;
    CTextLog m_Log;
    CPacStore m_Store;
    CmResult m_Result = CM_OK;
};

TEST_F(PacStoreTest, ATextServesUntilItExpiresAndWhileItIsFetchedAgain) {
    const CCmScriptedHttpServer server(
        {{Answer("200 OK", "Etag: \"v1\"\r\nCache-Control: max-age=600\r\n", "one"),
          Answer("304 Not Modified", "Cache-Control: max-age=600\r\n", ""), Answer("200 OK", "", "two")}});
    m_Store.SetWatcher(&m_Log);
    const CCmString strUrl = server.GetUrl("/proxy.pac?who=me");
    CPacTextPtr pText;
    CTextLog second;
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, m_Store.Get(strUrl, pText, second));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_Store.Get(strUrl, pText, second));
    EXPECT_EQ("one", Get(strUrl));
    EXPECT_EQ(second.m_pText, m_Log.m_pText);
    Wait(599);
    EXPECT_EQ("one", Get(strUrl));
    EXPECT_EQ(1u, server.m_Requests.size());
    Wait(2);
    EXPECT_EQ("one", Get(strUrl));  // and asks whether it has changed
    RunUntil([&] { return server.m_Requests.size() == 2; });
    EXPECT_NE(std::string::npos, server.m_Requests[1].find("If-None-Match: \"v1\"\r\n"));
    m_Network.RunPosted();
    EXPECT_EQ("one", Get(strUrl));
    EXPECT_EQ(2u, server.m_Requests.size());
    EXPECT_EQ("", m_Log.m_strChanged);
    m_Store.Refresh();
    EXPECT_EQ("one", Get(strUrl));
    RunUntil([&] { return m_Log.m_strChanged == strUrl; });
    EXPECT_EQ("two", Get(strUrl));
}

TEST_F(PacStoreTest, FailedFetchesAreRepeatedLaterAndLater) {
    const auto failure = Answer("404 Not Found", "", "");
    const CCmScriptedHttpServer server({{failure}, {failure}, {failure}, {Answer("200 OK", "", "late"), failure}});
    CCmTraceCapture trace;
    const CCmString strUrl = server.GetUrl("/secret.pac");
    EXPECT_EQ("", Get(strUrl));
    EXPECT_EQ(CM_ERROR_NETWORK_HTTP_FAILURE, m_Log.m_Reasons.at(0));
    EXPECT_EQ("the server has answered with status 404", m_Log.m_strError);
    for (const time_t delay : {10, 30}) {
        Wait(delay - 1);
        EXPECT_EQ("", Get(strUrl));
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, m_Result);
        Wait(1);
        EXPECT_EQ("", Get(strUrl));
        EXPECT_EQ(CM_ERROR_WOULD_BLOCK, m_Result);
    }
    Wait(120);
    EXPECT_EQ("late", Get(strUrl));
    m_Store.Refresh();
    EXPECT_EQ("late", Get(strUrl));
    RunUntil([&] { return trace.Count("cannot be fetched") == 4; });
    EXPECT_EQ("late", Get(strUrl));
    EXPECT_FALSE(trace.Contains("secret"));
}

TEST_F(PacStoreTest, ATextThatIsNoScriptIsFetchedAgainSoon) {
    const auto page = Answer("200 OK", "Cache-Control: max-age=86400\r\n", "<html>");
    const CCmScriptedHttpServer server({{Answer("304 Not Modified", "", ""), page, Answer("200 OK", "", "good")}});
    const CCmString strUrl = server.GetUrl();
    m_Store.SetWatcher(&m_Log);
    EXPECT_EQ("", Get(strUrl)) << "no text is unchanged";
    EXPECT_EQ(CM_ERROR_NETWORK_HTTP_FAILURE, m_Log.m_Reasons.at(0));
    Wait(10);
    EXPECT_EQ("<html>", Get(strUrl));
    m_Store.Reject(strUrl, m_Log.m_pText);
    Wait(10);
    EXPECT_EQ("<html>", Get(strUrl));
    RunUntil([&] { return m_Log.m_strChanged == strUrl; });
    EXPECT_EQ("good", Get(strUrl));
}

TEST_F(PacStoreTest, TooMuchTooSlowAndNoUrl) {
    const CCmScriptedHttpServer big({{Answer("200 OK", "", std::string((1 << 20) + 1, 'x'))}});
    const CCmScriptedHttpServer latin({{Answer("200 OK", "", std::string((1 << 19) + 1, '\xE4'))}});
    const CCmScriptedHttpServer packed({{Answer("200 OK", "Content-Encoding: gzip\r\n", "\x1F\x8B")}});
    const CCmScriptedHttpServer silent(std::vector<CCmScriptedHttpServer::CAnswers>(1));
    for (const auto* pServer : {&big, &latin}) {
        EXPECT_EQ("", Get(pServer->GetUrl()));
        EXPECT_EQ("the text has more than 1 MiB", m_Log.m_strError);
    }
    EXPECT_EQ("", Get(packed.GetUrl()));
    EXPECT_EQ("the text is compressed, which was not asked for", m_Log.m_strError);
    EXPECT_NE(std::string::npos, packed.m_Requests.at(0).find("Accept-Encoding: identity\r\n"));
    CPacTextPtr pText;
    CTextLog log;
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, m_Store.Get(silent.GetUrl(), pText, log));
    m_Network.RunPosted();
    Wait(31);
    RunUntil([&] { return !log.m_Reasons.empty(); });
    EXPECT_NE(CM_OK, log.m_Reasons[0]);
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, m_Store.Get(silent.GetUrl("/2"), pText, log));
    m_Store.Cancel(log);
    for (const char* szUrl : {"", "ftp://a/", "http://user@a/", "proxy.pac"})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, m_Store.Get(szUrl, pText, log)) << szUrl;
    const CCmTempDir dir;
    EXPECT_EQ("\xC3\xA4", Get("file://" + dir.Write("a.pac", "\xE4")));
    EXPECT_EQ("", Get("file://" + dir.PathOf("none.pac")));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, m_Result);
    EXPECT_EQ(1u, log.m_Reasons.size());
}

TEST(PacTextTest, LifetimesAndEncodings) {
    const std::string_view strDate = "Sun, 06 Nov 1994 08:49:37 GMT", strLater = "Sun, 06 Nov 1994 09:49:37 GMT";
    EXPECT_EQ(USUAL_PAC_SECONDS, PacLifetimeOf("", "", strDate));
    EXPECT_EQ(USUAL_PAC_SECONDS, PacLifetimeOf("private, max-age=x", "", "") + USUAL_PAC_SECONDS - LEAST_PAC_SECONDS);
    EXPECT_EQ(3600u, PacLifetimeOf("", strLater, strDate));
    EXPECT_EQ(7200u, PacLifetimeOf("public, Max-Age=7200", strLater, strDate));
    EXPECT_EQ(LEAST_PAC_SECONDS, PacLifetimeOf("no-cache, max-age=7200", "", ""));
    EXPECT_EQ(LEAST_PAC_SECONDS, PacLifetimeOf("", "0", ""));
    EXPECT_EQ(MOST_PAC_SECONDS, PacLifetimeOf("max-age=99999999999", "", ""));
    for (const auto& [strText, strDecoded] : std::map<CCmString, CCmString>{{"\xEF\xBB\xBF\xC3\xA4", "\xC3\xA4"},
                                                                            {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
                                                                            {"\xC0\xAF", "\xC3\x80\xC2\xAF"},
                                                                            {"\xED\xA0\x80", "\xC3\xAD\xC2\xA0\xC2\x80"}}) {
        CCmString strResult = strText;
        EXPECT_TRUE(DecodeScript(strResult, 100));
        EXPECT_EQ(strDecoded, strResult);
    }
}

}  // namespace talvo
