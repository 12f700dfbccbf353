// Replies of proxy servers, and the texts of routes. Any split of a reply gives the same result.
#include "fuzz/fuzz_input.h"
#include "talvo/transport/proxy_route.h"
#include "tests/support/proxy_dialogs.h"

using talvo::IProxyDialog;

namespace {

constexpr ECmProxyKind KINDS[] = {CM_PROXY_HTTP, CM_PROXY_SOCKS5, CM_PROXY_SOCKS4A};

struct CResult {
    bool operator==(const CResult&) const = default;

    IProxyDialog::EStep m_Step = IProxyDialog::TALK;
    size_t m_stTaken = 0;  // of an open tunnel
    CmResult m_Reason = CM_OK;
    CCmString m_strText, m_strSent;
};

CResult Feed(int aKind, const std::string& aReply, CFuzzCutter* aCutter) {
    CTestLogin login("user");
    CResult result;
    const auto pDialog = MakeDialog(KINDS[aKind], "peer.test", login);
    result.m_Step = pDialog->Begin(result.m_strSent);
    for (const std::string& strPiece : PiecesOf(aReply, aCutter)) {
        if (result.m_Step != IProxyDialog::TALK || strPiece.empty())
            continue;
        size_t stTaken = 0;
        result.m_Step = pDialog->Take(strPiece, stTaken, result.m_strSent);
        FUZZ_CHECK(stTaken <= strPiece.size());
        FUZZ_CHECK(result.m_Step != IProxyDialog::TALK || stTaken == strPiece.size());
        result.m_stTaken += stTaken;
    }
    if (result.m_Step != IProxyDialog::OPEN)
        result.m_stTaken = 0;
    result.m_Reason = pDialog->GetRefusal().m_Reason;
    result.m_strText = pDialog->GetRefusal().m_strText;
    FUZZ_CHECK((result.m_Step == IProxyDialog::FAILED) == (result.m_Reason != CM_OK));
    FUZZ_CHECK(result.m_strText.size() <= talvo::CProxyRefusal::LONGEST_TEXT);
    return result;
}

// A route's text is one of the same servers.
void ReadRoute(const std::string& aText) {
    for (const auto read : {CCmProxyRoute::FromScript, CCmProxyRoute::FromUris}) {
        CCmProxyRoute route, again;
        if (read(aText, route) != CM_OK)
            continue;
        FUZZ_CHECK(!route.IsEmpty() && route.GetServers().size() <= CCmProxyRoute::MOST_SERVERS);
        FUZZ_CHECK(CCmProxyRoute::FromUris(route.GetText(), again) == CM_OK);
        FUZZ_CHECK(std::ranges::equal(route.GetServers(), again.GetServers()));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    FuzzedDataProvider input(aData, aSize);
    const int nKind = input.ConsumeIntegralInRange(0, 3);
    CFuzzCutter cutter(input);
    const std::string strBytes = input.ConsumeRemainingBytesAsString();
    if (nKind == 3)
        ReadRoute(strBytes);
    else
        FUZZ_CHECK(Feed(nKind, strBytes, nullptr) == Feed(nKind, strBytes, &cutter));
    return 0;
}
