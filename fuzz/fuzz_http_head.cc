// Heads of requests and responses and the bodies behind them: the result does not depend on the pieces, and a printed head
// parses to the same head.
#include "fuzz/fuzz_input.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_framing.h"
#include "talvo/http/message/http_parser.h"

namespace {

// Keeps a body; sometimes wants no more of a chain, if there is a cutter.
class CFuzzBody : public talvo::CHttpBodySink {
public:
    explicit CFuzzBody(CFuzzCutter* aCutter) : m_pCutter(aCutter) {}
    BOOL OnBody(CCmMessageBlock& aView) override {
        FUZZ_CHECK(aView.GetTopLevelLength() > 0);
        m_strBody += aView.FlattenChained();
        return !m_pCutter || m_pCutter->Next(8) > 0;
    }
    std::string m_strBody;

private:
    CFuzzCutter* m_pCutter;  // not owned
};

talvo::CHttpFraming FramingOf(const CCmHttpRequestHead& aHead) { return talvo::get_request_framing(aHead); }
talvo::CHttpFraming FramingOf(const CCmHttpResponseHead& aHead) { return talvo::get_response_framing(aHead, nullptr); }

template <class Head>
std::string Print(const Head& aHead) {
    CCmString strHead;
    aHead.FlattenToSend(strHead);
    return strHead;
}

// The whole result of a message, as one text.
template <class Head>
std::string Parse(const std::string& aBytes, const CCmHttpLimits& aLimits, CFuzzCutter* aCutter) {
    Head head;
    CCmHttpParserT<Head> parser(&head);
    parser.SetLimits(aLimits);
    talvo::CHttpBodyReader reader;
    reader.SetLimits(aLimits);
    CFuzzBody body(aCutter);
    std::string strLeft;
    CmResult rv = CM_OK;
    for (const std::string& strPiece : PiecesOf(aBytes, aCutter)) {
        const CCmChainPtr pChain = aCutter ? aCutter->Cut(strPiece) : CCmChainPtr(MakeBlock(strPiece));
        const BOOL bBefore = head.IsComplete();
        rv = rv == CM_OK && !bBefore ? parser.ParseHead(pChain.get()) : rv;
        if (!head.IsComplete())
            continue;
        const talvo::CHttpFraming framing = FramingOf(head);
        if (!bBefore)
            reader.Begin(framing.m_nError ? talvo::EHttpBody::NONE : framing.m_Body, framing.m_ullLength);
        while (reader.Feed(*pChain, body) == CM_ERROR_NOT_AVAILABLE)
            continue;
        strLeft += pChain->FlattenChained();
    }
    // After a failure the amount that the reader took depends on the pieces.
    if (reader.EndOfStream() != CM_OK) {
        strLeft.clear();
        body.m_strBody.clear();
    }
    return Print(head) + std::to_string(rv) + std::to_string(head.GetFaults()) + std::to_string(parser.IsBeyondLimit()) + "|" +
           body.m_strBody + "|" + strLeft;
}

// The result of a chunked body that the parser keeps, which reads chunks less strictly.
template <class Head>
std::string ParseKept(const std::string& aBytes, const CCmHttpLimits& aLimits, CFuzzCutter* aCutter) {
    Head head;
    CCmHttpParserT<Head> parser(&head);
    parser.SetLimits(aLimits);
    CmResult rv = CM_ERROR_PARTIAL_DATA;
    for (const std::string& strPiece : PiecesOf(aBytes, aCutter)) {
        const CCmChainPtr pChain(MakeBlock(strPiece));
        if (!head.IsComplete() && parser.ParseHead(pChain.get()) != CM_OK)
            break;
        if (head.IsComplete() && rv == CM_ERROR_PARTIAL_DATA)
            rv = parser.HandleContent(pChain.get());
    }
    return !parser.IsChunked() ? "" : rv == CM_ERROR_FAILURE ? "broken" : std::to_string(rv) + parser.GetBody();
}

template <class Head>
void Reprint(const std::string& aBytes) {
    Head head;
    CCmHttpParserT<Head> parser(&head);
    const CCmChainPtr pBytes(MakeBlock(aBytes));
    if (parser.ParseHead(pBytes.get()) != CM_OK || !head.IsComplete())
        return;
    parser.HandleContent(pBytes.get());
    if (head.GetFaults() != 0)
        return;
    const std::string strPrinted = Print(head);
    const CCmChainPtr pPrinted(MakeBlock(strPrinted));
    Head again;
    CCmHttpParserT<Head> reparser(&again);
    FUZZ_CHECK(reparser.ParseHead(pPrinted.get()) == CM_OK && again.IsComplete() && pPrinted->GetChainedLength() == 0);
    FUZZ_CHECK(Print(again) == strPrinted && Print(Head(again)) == strPrinted);
}

template <class Head>
void Run(const std::string& aBytes, const CCmHttpLimits& aLimits, CFuzzCutter& aCutter) {
    FUZZ_CHECK(Parse<Head>(aBytes, aLimits, nullptr) == Parse<Head>(aBytes, aLimits, &aCutter));
    FUZZ_CHECK(ParseKept<Head>(aBytes, aLimits, nullptr) == ParseKept<Head>(aBytes, aLimits, &aCutter));
    Reprint<Head>(aBytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    FuzzedDataProvider input(aData, aSize);
    CFuzzCutter cutter(input);
    const BOOL bResponse = input.ConsumeBool();
    CCmHttpLimits limits;
    if (input.ConsumeBool()) {
        limits.m_dwMaxLine = input.ConsumeIntegral<uint8_t>();
        limits.m_dwMaxHeaders = input.ConsumeIntegral<uint8_t>() % 16;
        limits.m_ullMaxBody = input.ConsumeIntegral<uint8_t>();
    }
    // A low limit of names, so that the own names of heads are covered as well.
    CCmHttpAtomList::Instance()->SetLimits(1000, 20000);
    const std::string strBytes = input.ConsumeRemainingBytesAsString();
    bResponse ? Run<CCmHttpResponseHead>(strBytes, limits, cutter) : Run<CCmHttpRequestHead>(strBytes, limits, cutter);
    return 0;
}
