// A server's instructions to a client beside the message itself: URLs, dates, redirects and authentication challenges.
#include <string_view>

#include "fuzz/fuzz_input.h"
#include "talvo/http/client/http_client_request.h"
#include "talvo/http/client/http_redirect.h"
#include "talvo/http/message/http_auth.h"
#include "talvo/http/message/http_date.h"
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
    CCmSecret answer;
    while (authenticator.OnChallenges(aValue))
        FUZZ_CHECK(authenticator.Authorize("GET", "/", answer) == CM_OK && talvo::is_sendable(answer.Get()));
}

// An accepted URL prints as one with the same meaning, and so does a date.
void CheckUrlAndDate(const std::string& aText) {
    CCmHttpUrl url;
    if (url.Init(aText)) {
        const BOOL bFile = url.GetScheme() == "file";
        FUZZ_CHECK(bFile ? url.GetHostName().empty() : url.GetPath()[0] == '/' && url.GetPort() != 0);
        FUZZ_CHECK(url.GetHostName().find_first_of("[]") == CCmString::npos);
        const CCmHttpUrl before(url);
        FUZZ_CHECK((url.GetHostName().empty() && !bFile) || url.Init(before.GetAsciiSpec()));
        FUZZ_CHECK(url.GetHostName() == before.GetHostName() && url.GetPort() == before.GetPort());
        FUZZ_CHECK(url.GetPath() == before.GetPath() && url.GetAsciiSpec() == before.GetAsciiSpec());
    }
    int64_t llSeconds = 0, llAgain = 0;
    if (cm_parse_http_date(aText, llSeconds))
        FUZZ_CHECK(cm_parse_http_date(cm_format_http_date(llSeconds), llAgain) && llAgain == llSeconds);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string_view text(reinterpret_cast<const char*>(aData), aSize);
    const size_t nLine = std::min(text.find('\n'), text.size());
    CheckLocation(text.substr(0, nLine), text.substr(std::min(nLine + 1, text.size())));
    CheckChallenges(text);
    CheckUrlAndDate(std::string(text));
    return 0;
}
