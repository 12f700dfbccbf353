#include "tools/text.h"

#include <gtest/gtest.h>

#include "tools/endpoint.h"
#include "tools/file_name.h"
#include "tools/json_line.h"
#include "tools/percentiles.h"
#include "tools/sha256.h"

namespace tool {

TEST(ToolTextTest, NamesFromAPeerStayInTheDirectory) {
    for (const std::string& strGood : {std::string("a"), std::string("..."), std::string("r\xc3\xa9sum\xc3\xa9 2.pdf"),
                                       std::string(255, 'n'), std::string(".talvo-notes")})
        EXPECT_EQ("", CheckFileName(strGood)) << strGood;
    for (const std::string& strBad :
         {std::string(), std::string("."), std::string(".."), std::string("/"), std::string("../a"), std::string("/etc/passwd"),
          std::string("a/"), std::string("a\0b", 3), std::string("a\nb"), std::string("\x7f"), std::string("a\xc2\x9b"),
          std::string(256, 'n'), std::string(".talvo-00.part"), MakeTemporaryName()})
        EXPECT_NE("", CheckFileName(strBad)) << strBad;
    EXPECT_NE(MakeTemporaryName(), MakeTemporaryName());
    EXPECT_EQ("c", GetBaseName("/a/b/c"));
    EXPECT_EQ("", GetBaseName("a/"));
}

TEST(ToolTextTest, TextOfAPeerCannotSteerATerminal) {
    EXPECT_EQ("a?[31mb??c?", Printable("a\x1b[31mb\r\nc\x7f"));
    EXPECT_EQ("??31m", Printable("\xc2\x9b"
                                 "31m"));
    EXPECT_EQ("r\xc3\xa9sum\xc3\xa9", Printable("r\xc3\xa9sum\xc3\xa9"));
    // The same in JSON, where bytes that are no UTF-8 are replaced.
    EXPECT_EQ("{\"event\":\"x\",\"name\":\"\\\"\\u001b\\n\xef\xbf\xbd\",\"bytes\":7}",
              JsonLine("x").Add("name", "\"\x1b\n\xff").Add("bytes", 7).GetText());
}

TEST(ToolTextTest, NumbersAreReadableAtTheEdgesOfTheirUnits) {
    EXPECT_EQ("0 bytes", FormatBytes(0));
    EXPECT_EQ("999 bytes", FormatBytes(999));
    EXPECT_EQ("1.0 kB", FormatBytes(1000));
    EXPECT_EQ("1.0 MB", FormatBytes(999990));
    EXPECT_EQ("18.4 EB", FormatBytes(~uint64_t{0}));
    EXPECT_EQ("0:59", FormatDuration(59));
    EXPECT_EQ("1:00:01", FormatDuration(3601));
}

TEST(ToolTextTest, EndpointsAreTakenApart) {
    Endpoint endpoint;
    EXPECT_EQ("", ParseEndpoint("192.0.2.7:65535", endpoint));
    EXPECT_EQ("192.0.2.7:65535", endpoint.GetText());
    EXPECT_EQ("", ParseEndpoint("some-host.example:1", endpoint));
    EXPECT_EQ("some-host.example", endpoint.m_strHost);
    for (const char* pBad : {"", ":", "host", "host:", ":80", "host:0", "host:65536", "host:-1", "host:1x", "host: 1",
                             "1.2.3:80", "256.1.1.1:80", "a b:80", "::1:80", "a/b:80"})
        EXPECT_NE("", ParseEndpoint(pBad, endpoint)) << pBad;
}

TEST(ToolTextTest, PercentilesAreNearestRanks) {
    std::vector<DWORD> vecSamples;
    for (DWORD i = 100; i > 0; --i)
        vecSamples.push_back(i);
    const Percentiles hundred = ComputePercentiles(vecSamples);
    EXPECT_EQ(1u, hundred.m_dwMin);
    EXPECT_EQ(50u, hundred.m_dwP50);
    EXPECT_EQ(90u, hundred.m_dwP90);
    EXPECT_EQ(99u, hundred.m_dwP99);
    EXPECT_EQ(100u, hundred.m_dwMax);
    const Percentiles three = ComputePercentiles({30, 10, 20});
    EXPECT_EQ(20u, three.m_dwP50);
    EXPECT_EQ(30u, three.m_dwP90);
    EXPECT_EQ(7u, ComputePercentiles({7}).m_dwP99);
    EXPECT_EQ(0u, ComputePercentiles({}).m_dwMax);
}

TEST(ToolTextTest, HashDoesNotDependOnThePieces) {
    Sha256 hash;
    hash.Update("a");
    hash.Update("");
    hash.Update("bc");
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", ToHex(hash.Finish()));
    EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", ToHex(Sha256().Finish()));
}

}  // namespace tool
