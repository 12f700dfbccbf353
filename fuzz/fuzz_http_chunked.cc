// Chunked bodies: the same data for any pieces, copied by the decoder or viewed by the body reader.
#include <tuple>

#include "fuzz/fuzz_input.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_chunked_decoder.h"

namespace {

// The result, what was found, and the bytes that were used unless they are broken.
using COutcome = std::tuple<bool, bool, std::string, size_t>;

COutcome Decode(const std::string& aBytes, const CCmHttpLimits& aLimits, BOOL aStrict, CFuzzCutter* aCutter) {
    CCmHttpChunkedDecoder decoder;
    decoder.SetStrict(aStrict);
    decoder.SetLimits(aLimits);
    BOOL bGood = TRUE;
    std::string strData;
    size_t stConsumed = 0;
    for (const std::string& strPiece : PiecesOf(aBytes, aCutter)) {
        unsigned long ulConsumed = 0;
        bGood = bGood && decoder.HandleChunkedContent(strPiece.data(), strPiece.size(), strData, ulConsumed);
        FUZZ_CHECK(ulConsumed <= strPiece.size() && (ulConsumed == strPiece.size() || !bGood || decoder.IsFinished()));
        stConsumed += ulConsumed;
    }
    return {bGood, decoder.IsFinished(), strData, bGood ? stConsumed : 0};
}

COutcome Read(const std::string& aBytes, const CCmHttpLimits& aLimits, CFuzzCutter& aCutter) {
    talvo::CHttpBodyReader reader;
    reader.SetLimits(aLimits);
    reader.Begin(talvo::EHttpBody::CHUNKED);
    CFuzzBody body(&aCutter);
    const CCmChainPtr pChain = aCutter.Cut(aBytes);
    CmResult rv;
    while ((rv = reader.Feed(*pChain, body)) == CM_ERROR_NOT_AVAILABLE)
        continue;
    FUZZ_CHECK(reader.GetReceived() == body.m_strBody.size());
    const bool bGood = rv != CM_ERROR_FAILURE;
    return {bGood, reader.IsComplete(), body.m_strBody, bGood ? aBytes.size() - pChain->GetChainedLength() : 0};
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
    FUZZ_CHECK(!std::get<1>(strict) || strict == outcome);
    FUZZ_CHECK(strict == Read(strBytes, limits, cutter));
    return 0;
}
