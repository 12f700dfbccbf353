#include "tools/frame.h"

#include "tests/support/test.h"

namespace tool {

namespace {

// Writes down what the parser finds; adjacent data is put together, since its pieces depend on how the bytes came.
class Log : public FrameSink {
public:
    bool OnFrame(EFrame aType, std::string_view aPayload) override {
        m_strText += "[" + std::to_string(int{static_cast<BYTE>(aType)}) + ":" + std::string(aPayload) + "]";
        m_bInData = false;
        return aType != EFrame::BYE;
    }
    bool OnData(std::string_view aPiece) override {
        m_strText += m_bInData ? "" : "data=";
        m_strText += aPiece;
        m_bInData = true;
        return true;
    }

    std::string m_strText;

private:
    bool m_bInData = false;
};

struct Outcome {
    FrameParser::EResult m_Result;
    std::string m_strText;
};

Outcome Parse(std::string_view aBytes, size_t aPiece) {
    FrameParser parser;
    Log log;
    auto result = FrameParser::ALL_READ;
    for (; !aBytes.empty() && result == FrameParser::ALL_READ; aBytes.remove_prefix(std::min(aPiece, aBytes.size())))
        result = parser.Feed(aBytes.substr(0, aPiece), log);
    return {result, log.m_strText};
}

std::string Raw(BYTE aType, DWORD aLength, std::string_view aPayload = {}) {
    CCmMessageBlock block(FRAME_HEADER);
    CCmByteStreamNetwork stream(block);
    stream << aType << aLength;
    return block.FlattenChained().append(aPayload);
}

}  // namespace

TEST(ToolFrameTest, StreamIsCutAlikeInAnyPieces) {
    const std::string strData = Raw(3, 10, "0123456789");
    const std::string strHash(32, 'h');
    struct {
        const char* m_pName;
        std::string m_strBytes;
        FrameParser::EResult m_Result;
        std::string m_strText;
    } const CASES[] = {
        {"Session", EncodeFrame(EFrame::ACCEPT) + strData + strData + EncodeFrame(EFrame::END, strHash) + EncodeAbort("no"),
         FrameParser::ALL_READ, "[129:]data=01234567890123456789[4:" + strHash + "][5:no]"},
        {"Incomplete", Raw(5, 20, "half"), FrameParser::ALL_READ, ""},
        {"SinkStops", EncodeFrame(EFrame::BYE) + "anything", FrameParser::STOPPED, "[6:]"},
        {"UnknownType", EncodeFrame(EFrame::ACCEPT) + Raw(7, 0), FrameParser::BROKEN, "[129:]"},
        {"AnotherProtocol", "GET / HTTP/1.1\r\n\r\n", FrameParser::BROKEN, ""},
        {"DataTooLong", Raw(3, MAX_DATA + 1, "x"), FrameParser::BROKEN, ""},
        {"DataEmpty", Raw(3, 0), FrameParser::BROKEN, ""},
        {"LengthOfAllOnes", Raw(2, 0xffffffff, "x"), FrameParser::BROKEN, ""},
        {"NameTooLong", Raw(2, 8 + 256), FrameParser::BROKEN, ""},
        {"NameMissing", Raw(2, 8), FrameParser::BROKEN, ""},
        {"HashTooShort", Raw(4, 31), FrameParser::BROKEN, ""},
        {"ReasonTooLong", Raw(0x82, 514), FrameParser::BROKEN, ""},
    };
    for (const auto& c : CASES) {
        for (const size_t piece : {size_t{1000}, size_t{7}, size_t{3}, size_t{2}, size_t{1}}) {
            const Outcome outcome = Parse(c.m_strBytes, piece);
            EXPECT_EQ(c.m_Result, outcome.m_Result) << c.m_pName << " in pieces of " << piece;
            EXPECT_EQ(c.m_strText, outcome.m_strText) << c.m_pName << " in pieces of " << piece;
        }
    }
}

TEST(ToolFrameTest, BadPayloadsAreNotDecoded) {
    uint64_t ullSize = 0;
    std::string strText;
    bool bKept = true;
    EXPECT_FALSE(DecodeFile("1234567", ullSize, strText));
    EXPECT_FALSE(DecodeResult("", bKept, strText));
    EXPECT_FALSE(DecodeResult("\2", bKept, strText));
    ASSERT_TRUE(DecodeResult(EncodeResult(false, std::string(600, 'r')).substr(FRAME_HEADER), bKept, strText));
    EXPECT_EQ(std::string(MAX_REASON, 'r'), strText);
}

}  // namespace tool
