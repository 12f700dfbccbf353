// Chunked bodies: the same data for any pieces, copied by the decoder or viewed by the body reader.
#include "fuzz/fuzz_input.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_body.h"
#include "talvo/http/message/http_chunked_decoder.h"

namespace {

class CFuzzBody : public talvo::CHttpBodySink {
public:
    explicit CFuzzBody(CFuzzCutter& aCutter) : m_Cutter(aCutter) {}
    BOOL OnBody(CCmMessageBlock& aView) override {
        m_strBody += aView.FlattenChained();
        return m_Cutter.Next(8) > 0;
    }
    std::string m_strBody;

private:
    CFuzzCutter& m_Cutter;
};

struct COutcome {
    BOOL operator==(const COutcome& aRight) const {
        return m_bGood == aRight.m_bGood && m_bFinished == aRight.m_bFinished && m_strData == aRight.m_strData &&
               (!m_bGood || m_stConsumed == aRight.m_stConsumed);
    }
    BOOL m_bGood = TRUE;
    BOOL m_bFinished = FALSE;
    std::string m_strData;
    size_t m_stConsumed = 0;
};

COutcome Decode(const std::string& aBytes, const CCmHttpLimits& aLimits, BOOL aStrict, CFuzzCutter* aCutter) {
    CCmHttpChunkedDecoder decoder;
    decoder.SetStrict(aStrict);
    decoder.SetLimits(aLimits);
    COutcome outcome;
    for (size_t stAt = 0, stLength; stAt < aBytes.size() && outcome.m_bGood; stAt += stLength) {
        stLength = aCutter ? aCutter->Next(aBytes.size() - stAt) : aBytes.size();
        const std::string strPiece = aBytes.substr(stAt, stLength);
        unsigned long ulConsumed = 0;
        outcome.m_bGood = decoder.HandleChunkedContent(strPiece.data(), strPiece.size(), outcome.m_strData, ulConsumed);
        FUZZ_CHECK(ulConsumed <= stLength && (ulConsumed == stLength || !outcome.m_bGood || decoder.IsFinished()));
        outcome.m_stConsumed += ulConsumed;
    }
    outcome.m_bFinished = decoder.IsFinished();
    return outcome;
}

COutcome Read(const std::string& aBytes, const CCmHttpLimits& aLimits, CFuzzCutter& aCutter) {
    talvo::CHttpBodyReader reader;
    reader.SetLimits(aLimits);
    reader.Begin(talvo::EHttpBody::CHUNKED);
    CFuzzBody body(aCutter);
    CCmMessageBlock* pChain = aCutter.Cut(aBytes);
    CmResult rv;
    while ((rv = reader.Feed(*pChain, body)) == CM_ERROR_NOT_AVAILABLE)
        continue;
    COutcome outcome{rv != CM_ERROR_FAILURE, reader.IsComplete(), body.m_strBody, aBytes.size() - pChain->GetChainedLength()};
    FUZZ_CHECK(reader.GetReceived() == body.m_strBody.size());
    pChain->DestroyChained();
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    FuzzedDataProvider input(aData, aSize);
    CFuzzCutter cutter(input);
    CCmHttpLimits limits;
    if (input.ConsumeBool()) {
        limits.m_dwMaxLine = input.ConsumeIntegral<uint8_t>();
        limits.m_dwMaxHeaders = input.ConsumeIntegral<uint8_t>() % 8;
    }
    CCmHttpAtomList::Instance()->SetLimits(1000, 20000);
    const std::string strBytes = input.ConsumeRemainingBytesAsString();
    const COutcome outcome = Decode(strBytes, limits, FALSE, nullptr);
    FUZZ_CHECK(outcome == Decode(strBytes, limits, FALSE, &cutter));
    const COutcome strict = Decode(strBytes, limits, TRUE, nullptr);
    FUZZ_CHECK(!strict.m_bFinished || strict == outcome);
    FUZZ_CHECK(strict == Read(strBytes, limits, cutter));
    return 0;
}
