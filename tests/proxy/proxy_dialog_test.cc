#include "tests/support/proxy_dialogs.h"
#include "tests/support/test.h"

using talvo::IProxyDialog;

namespace {

constexpr CmResult PROXY = CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE;
constexpr CmResult PEER = CM_ERROR_NETWORK_CONNECT_ERROR;

std::string operator""_b(const char* aText, size_t aSize) { return {aText, aSize}; }

struct CCase {
    ECmProxyKind m_Kind;
    std::string m_strPeer;
    std::string m_strUser;  // "?": it is asked for
    std::string m_strSent;  // by the dialog
    std::string m_strReply;
    IProxyDialog::EStep m_Step;
    CmResult m_Reason;
    std::string m_strText;
};

// The reply and the peer's first bytes behind it arrive in two pieces.
void RunCase(const CCase& aCase, size_t aCut) {
    CTestLogin login(aCase.m_strUser);
    const auto pDialog = MakeDialog(aCase.m_Kind, aCase.m_strPeer.c_str(), login);
    const std::string strIn = aCase.m_strReply + (aCase.m_Step == IProxyDialog::TALK ? "" : "peer");
    CCmString strOut;
    IProxyDialog::EStep step = pDialog->Begin(strOut);
    size_t stAt = 0;
    for (const size_t stEnd : {aCut, strIn.size()}) {
        if (step != IProxyDialog::TALK || stAt == stEnd)
            continue;
        size_t stTaken = 0;
        step = pDialog->Take(std::string_view(strIn).substr(stAt, stEnd - stAt), stTaken, strOut);
        if (step == IProxyDialog::TALK) {
            EXPECT_EQ(stEnd - stAt, stTaken);
        }
        stAt += stTaken;
    }
    EXPECT_EQ(aCase.m_Step, step) << aCase.m_strReply << " at " << aCut;
    if (step == IProxyDialog::OPEN) {
        EXPECT_EQ(aCase.m_strReply.size(), stAt) << "at " << aCut;
    }
    EXPECT_EQ(aCase.m_strSent, strOut);
    EXPECT_EQ(aCase.m_Reason, pDialog->GetRefusal().m_Reason) << aCase.m_strReply;
    EXPECT_EQ(aCase.m_strText, pDialog->GetRefusal().m_strText);
}

std::string Connect(const std::string& aTarget, const std::string& aField = "") {
    return "CONNECT " + aTarget + " HTTP/1.1\r\nHost: " + aTarget + "\r\nUser-Agent: talvo\r\n" + aField + "\r\n";
}

std::string Times(int aCount, const std::string& aText) {
    std::string strAll;
    for (int i = 0; i < aCount; ++i)
        strAll += aText;
    return strAll;
}

}  // namespace

TEST(ProxyDialogTest, AnySplitOfTheRepliesGivesTheSameResult) {
    constexpr auto HTTP = CM_PROXY_HTTP;
    constexpr auto V4 = CM_PROXY_SOCKS4, V4A = CM_PROXY_SOCKS4A, V5 = CM_PROXY_SOCKS5;
    constexpr auto OPEN = IProxyDialog::OPEN, AGAIN = IProxyDialog::AGAIN, FAILED = IProxyDialog::FAILED;
    const std::string strHttp = Connect("a.b:443");
    const std::string strLogin = "HTTP/1.1 407 Who\r\nProxy-Authenticate: Basic\r\n";
    const std::string strAnswer = Connect("a.b:443", "A: Basic stays\r\n");
    const std::string strV4 = "\4\1\1\xBB\x01\x02\x03\x04u\0"_b, strV4a = "\4\1\1\xBB\0\0\0\1\0a.b\0"_b;
    const std::string strV5 = "\5\1\0"_b, strV5Login = "\5\2\0\2"_b, strName = "\5\1\0\3\3a.b\1\xBB"_b;
    const CCase CASES[] = {
        {HTTP, "a.b", "", strHttp, "HTTP/1.1 200 OK\r\nContent-Length: 9\r\nTransfer-Encoding: chunked\r\n\r\n", OPEN, CM_OK,
         ""},
        {HTTP, "::1", "", Connect("[::1]:443"), "HTTP/1.0 299\n\n", OPEN, CM_OK, ""},
        {HTTP, "a.b", "", strHttp, Times(8, "HTTP/1.1 100 Go on\r\n\r\n") + "HTTP/1.1 200\r\n\r\n", OPEN, CM_OK, ""},
        {HTTP, "a.b", "", strHttp, Times(9, "HTTP/1.1 103 X\r\n\r\n"), FAILED, PROXY, "too many interim replies"},
        {HTTP, "a.b", "", strHttp, "HTTP/1.1 403 Not\tyou\r\n\r\n", FAILED, PROXY, "403 Not?you"},
        {HTTP, "a.b", "", strHttp, "HTTP/1.1 404 Not Found\r\n\r\n", FAILED, PEER, "404 Not Found"},
        {HTTP, "a.b", "", strHttp, "HTTP/1.1 503 " + std::string(300, 'x') + "\r\n\r\n", FAILED, PEER,
         "503 " + std::string(196, 'x')},
        {HTTP, "a.b", "", strHttp, "HTTP/1.1 501 No\r\n\r\n", FAILED, PROXY, "501 No"},
        {HTTP, "a.b", "", strHttp, "HTTP/1.1 101 Other\r\n\r\n", FAILED, PROXY, "101 Other"},
        {HTTP, "a.b", "", strHttp, "HTTX", FAILED, PROXY, "not an HTTP reply"},
        {HTTP, "a.b", "", strHttp, "HTTP/1.1 20 OK\r\n\r\n", FAILED, PROXY, "an HTTP reply without a status"},
        {HTTP, "a.b", "", strHttp, strLogin + "\r\n", FAILED, PROXY, "407 Who"},
        {HTTP, "a.b", "?", strHttp, strLogin + "Content-Length: 3\r\n\r\n", AGAIN, CM_OK, ""},
        {HTTP, "a.b", "u", strHttp, strLogin + "\r\n", AGAIN, CM_OK, ""},
        {HTTP, "a.b", "u", strHttp, strLogin + "Content-Length: 65537\r\n\r\n", AGAIN, CM_OK, ""},
        {HTTP, "a.b", "u", strHttp, strLogin + "Transfer-Encoding: chunked\r\n\r\n10001\r\n", AGAIN, CM_OK, ""},
        {HTTP, "a.b", "ntlm", strHttp, strLogin + "Connection: close\r\nContent-Length: 0\r\n\r\n", FAILED, PROXY,
         "the proxy closes during its login"},
        {HTTP, "a.b", "u", strHttp + strAnswer, strLogin + "Content-Length: 3\r\n\r\nabcHTTP/1.1 200\r\n\r\n", OPEN, CM_OK, ""},
        {HTTP, "a.b", "u", strHttp + strAnswer,
         strLogin + "Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\nHTTP/1.1 504 Slow\r\n\r\n", FAILED, PEER,
         "504 Slow"},
        {V4, "1.2.3.4", "u", strV4, "\0\x5Axxxxxx"_b, OPEN, CM_OK, ""},
        {V4, "1.2.3.4", "u", strV4, "\0\x5Bxxxxxx"_b, FAILED, PEER, "SOCKS reply 5b"},
        {V4, "1.2.3.4", "u", strV4, "\0\x5Dxxxxxx"_b, FAILED, PROXY, "SOCKS reply 5d"},
        {V4A, "a.b", "", strV4a, "\0\x5Axxxxxx"_b, OPEN, CM_OK, ""},
        {V4A, "a.b", "", strV4a, "\4"_b, FAILED, PROXY, "not a reply of this version of SOCKS"},
        {V5, "a.b", "", strV5 + strName, "\5\0\5\0\0\1xxxxpp"_b, OPEN, CM_OK, ""},
        {V5, "::1", "", strV5 + "\5\1\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1\1\xBB"_b, "\5\0\5\0\0\4xxxxxxxxxxxxxxxxpp"_b, OPEN,
         CM_OK, ""},
        {V5, "1.2.3.4", "u", strV5Login + "\1\1u\2pw\5\1\0\1\1\2\3\4\1\xBB"_b, "\5\2\1\0\5\0\0\3\3xyzpp"_b, OPEN, CM_OK, ""},
        {V5, "a.b", "u", strV5Login + "\1\1u\2pw"_b, "\5\2\1\1"_b, FAILED, PROXY, "the SOCKS proxy refuses the credentials"},
        {V5, "a.b", "?", strV5Login, "\5\2"_b, AGAIN, CM_OK, ""},
        {V5, "a.b", std::string(256, 'u'), strV5Login, "\5\2"_b, FAILED, PROXY, "SOCKS has no user or password of this length"},
        {V5, "a.b", "", strV5, "\5\2"_b, FAILED, PROXY, "a SOCKS method that was not offered"},
        {V5, "a.b", "", strV5, "\5\xFF"_b, FAILED, PROXY, "SOCKS method ff: a login is required"},
        {V5, "a.b", "", strV5, "H"_b, FAILED, PROXY, "not a reply of this version of SOCKS"},
        {V5, "a.b", "", strV5 + strName, "\5\0\5\5"_b, FAILED, PEER, "SOCKS reply 05: connection refused"},
        {V5, "a.b", "", strV5 + strName, "\5\0\5\x09"_b, FAILED, PROXY, "an unknown SOCKS reply"},
        {V5, "a.b", "", strV5 + strName, "\5\0\5\0\0\2x"_b, FAILED, PROXY, "a SOCKS reply with an unknown type of address"},
        {V5, "a.b", "", strV5 + strName, "\5\0\5\0\0\1xxxxp"_b, IProxyDialog::TALK, CM_OK, ""}};
    for (const CCase& test : CASES) {
        for (size_t stCut = 0; stCut <= test.m_strReply.size(); ++stCut)
            RunCase(test, stCut);
    }
}

// Before the reply to a repeated request, unless its login belongs to the connection.
TEST(ProxyDialogTest, AConnectionMayEndBehindAChallenge) {
    const std::string strLogin = "HTTP/1.1 407 Who\r\nProxy-Authenticate: Basic\r\nContent-Length: 0\r\n\r\n";
    const std::tuple<const char*, std::string, BOOL> CASES[] = {{"u", "HTTP/1.1 102 Wait\r\n\r\n", FALSE},
                                                                {"u", strLogin, TRUE},
                                                                {"u", strLogin + "H", FALSE},
                                                                {"ntlm", strLogin, FALSE}};
    for (const auto& [pUser, strIn, bMay] : CASES) {
        CTestLogin login(pUser);
        const auto pDialog = MakeDialog(CM_PROXY_HTTP, "a.b", login);
        CCmString strOut;
        size_t stTaken = 0;
        pDialog->Begin(strOut);
        EXPECT_EQ(IProxyDialog::TALK, pDialog->Take(strIn, stTaken, strOut));
        EXPECT_EQ(bMay, pDialog->IsRepeating()) << strIn;
    }
}

TEST(ProxyDialogTest, AHeadHasSixteenKilobytes) {
    const std::string strBegin = "HTTP/1.1 200 OK\r\nX: ", strEnd = "\r\n\r\n";
    const std::string strFill(talvo::CConnectReply::LONGEST - strBegin.size() - strEnd.size(), 'x');
    const std::string strHead = strBegin + strFill + strEnd, strLonger = strBegin + strFill + "x" + strEnd;
    for (const size_t stCut : {size_t{0}, size_t{100}, strHead.size() - 1, strHead.size()}) {
        RunCase({CM_PROXY_HTTP, "a.b", "", Connect("a.b:443"), strHead, IProxyDialog::OPEN, CM_OK, ""}, stCut);
        RunCase({CM_PROXY_HTTP, "a.b", "", Connect("a.b:443"), strLonger, IProxyDialog::FAILED, PROXY,
                 "the head of the reply is too long"},
                stCut);
    }
}
