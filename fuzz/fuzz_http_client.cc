// A server's instructions to a client beside the message itself: redirects and authentication challenges.
#include <string_view>

#include "fuzz/fuzz_input.h"
#include "talvo/http/client/http_client_request.h"
#include "talvo/http/client/http_redirect.h"
#include "talvo/http/message/http_auth.h"
#include "talvo/http/message/http_text.h"
#include "talvo/http/message/http_url.h"

namespace {

bool IsClean(std::string_view aText) {
    for (const char c : aText) {
        if (c <= ' ' || c == '\x7f')
            return false;
    }
    return true;
}

// Any Location is refused, or leads to a URL that every parser reads alike and that fits in a request line.
void CheckLocation(std::string_view aBase, std::string_view aLocation) {
    CCmHttpUrl base;
    if (!base.Init(CCmString("http://h/") + CCmString(aBase)))
        return;
    const CCmString strTarget = talvo::ResolveHttpLocation(base, aLocation);
    CCmHttpUrl url;
    if (strTarget.empty() || !url.Init(strTarget) || url.GetScheme() == "file")
        return;
    FUZZ_CHECK(IsClean(strTarget) && IsClean(talvo::MakeHttpTarget(url)) && url.GetPath().front() == '/');
    FUZZ_CHECK(!url.GetHostName().empty() && url.GetHostName().find_first_of("@/?#[]") == CCmString::npos);
    const CCmString strAgain = talvo::ResolveHttpLocation(base, url.GetAsciiSpec());
    FUZZ_CHECK(strAgain == url.GetAsciiSpec());
}

// For any challenge the answer is one line.
void CheckChallenges(std::string_view aValue) {
    talvo::CHttpAuthenticator authenticator;
    authenticator.SetCredentials("user", "pass\"word\\");
    while (authenticator.OnChallenges(aValue))
        FUZZ_CHECK(talvo::is_sendable(authenticator.Authorize("GET", "/")));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize);

int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string_view text(reinterpret_cast<const char*>(aData), aSize);
    const size_t nLine = std::min(text.find('\n'), text.size());
    CheckLocation(text.substr(0, nLine), text.substr(std::min(nLine + 1, text.size())));
    CheckChallenges(text);
    return 0;
}
