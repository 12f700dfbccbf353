// Frames from the helper for scripts, and texts of scripts. Any split of the frames gives the same ones.
#include "fuzz/fuzz_input.h"
#include "talvo/proxy/script/pac_frame.h"
#include "talvo/proxy/script/pac_utf8.h"

namespace {

// The frames, and how the reader ended.
std::string Read(const std::string& aBytes, CFuzzCutter* aCutter) {
    talvo::CPacFrameReader reader;
    std::string strFrames;
    for (const std::string& strPiece : PiecesOf(aBytes, aCutter)) {
        reader.Add(strPiece);
        talvo::EPacFrame kind{};
        std::string_view strPayload;
        auto step = talvo::CPacFrameReader::MORE;
        while ((step = reader.Take(kind, strPayload)) == talvo::CPacFrameReader::FRAME) {
            FUZZ_CHECK(strPayload.size() < talvo::MOST_PAC_FRAME);
            strFrames += static_cast<char>(kind) + std::to_string(strPayload.size()) + ":" + std::string(strPayload);
        }
        if (step == talvo::CPacFrameReader::BROKEN)
            return strFrames + "broken";
    }
    return strFrames;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    FuzzedDataProvider input(aData, aSize);
    CFuzzCutter cutter(input);
    const std::string strBytes = input.ConsumeRemainingBytesAsString();
    FUZZ_CHECK(Read(strBytes, nullptr) == Read(strBytes, &cutter));
    const CCmString strClean = talvo::CleanPacText(strBytes, 1024);
    FUZZ_CHECK(strClean.size() <= 1024 && talvo::CleanPacText(strClean, 1024) == strClean);
    CCmString strScript = strBytes, strAgain;
    talvo::DecodeScript(strScript, SIZE_MAX);
    strAgain = strScript;
    FUZZ_CHECK(talvo::DecodeScript(strAgain, SIZE_MAX) && strAgain.size() + 3 >= strScript.size());
    return 0;
}
