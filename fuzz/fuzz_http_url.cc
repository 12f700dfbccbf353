// URLs: an accepted URL prints as one with the same meaning.
#include "fuzz/fuzz_input.h"
#include "talvo/http/message/http_date.h"
#include "talvo/http/message/http_url.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string strText(reinterpret_cast<const char*>(aData), aSize);
    CCmHttpUrl url;
    if (url.Init(strText)) {
        const BOOL bFile = url.GetScheme() == "file";
        FUZZ_CHECK(bFile ? url.GetHostName().empty() : url.GetPath()[0] == '/' && url.GetPort() != 0);
        FUZZ_CHECK(url.GetHostName().find_first_of("[]") == CCmString::npos);
        const CCmHttpUrl before(url);
        FUZZ_CHECK((url.GetHostName().empty() && !bFile) || url.Init(before.GetAsciiSpec()));
        FUZZ_CHECK(url.GetHostName() == before.GetHostName() && url.GetPort() == before.GetPort());
        FUZZ_CHECK(url.GetPath() == before.GetPath() && url.GetAsciiSpec() == before.GetAsciiSpec());
    }
    int64_t llSeconds = 0, llAgain = 0;
    if (talvo::parse_http_date(strText, llSeconds))
        FUZZ_CHECK(talvo::parse_http_date(talvo::format_http_date(llSeconds), llAgain) && llAgain == llSeconds);
    return 0;
}
