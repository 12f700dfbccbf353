#include "talvo/base/config.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/temp_dir.h"
#include "tests/support/trace_capture.h"

namespace {

class ConfigTest : public testing::Test {
protected:
    void Load(const std::string& aText) { ASSERT_EQ(load_config_file(m_Dir.Write("talvo.cfg", aText).c_str()), CM_OK); }
    ~ConfigTest() override { load_config_file("/nonexistent/talvo.cfg"); }

    const CCmTempDir m_Dir;
};

TEST_F(ConfigTest, SectionsKeysAndValuesAreTrimmed) {
    Load(
        "top=0\r\n# [No]\n;a=1\n\n [ Net ] \r\n a = b c "
        ";\r\nlast=1\nlast=2;\nempty=\nequal=x=y\n[net]\na=other\n[Net]\nagain=;;");
    EXPECT_EQ(get_string_param("", "top", "-"), "0");
    EXPECT_EQ(get_string_param("Net", "a", "-"), "b c");
    EXPECT_EQ(get_string_param("net", "a", "-"), "other");
    EXPECT_EQ(get_string_param("Net", "last", "-"), "2");
    EXPECT_EQ(get_string_param("Net", "empty", "-"), "");
    EXPECT_EQ(get_string_param("Net", "equal", "-"), "x=y");
    EXPECT_EQ(get_string_param("Net", "again", "-"), ";");
    EXPECT_EQ(get_string_param("Net", "A", "-"), "-");
    EXPECT_EQ(get_string_param("No", "a", "-"), "-");
    EXPECT_EQ(get_string_param(nullptr, "a", "-"), "-");
    EXPECT_EQ(get_string_param("Net", nullptr, "-"), "-");
}

TEST_F(ConfigTest, NumbersOutOfRangeGiveTheDefault) {
    Load(
        "[N]\na=-12;\nhex=0xFFffFFFF\nmin=-2147483648\nover=2147483648\nhuge=99999999999999999999\nword=65535\nbig=65536\n"
        "tail=12x\nblank=\nsign=-\nprefix=0x\nfraction=1.5\n");
    EXPECT_EQ(get_int_param("N", "a", 7), -12);
    EXPECT_EQ(get_int_param("N", "hex", 7), 7);
    EXPECT_EQ(get_int_param("N", "min", 7), INT32_MIN);
    EXPECT_EQ(get_uint32_param("N", "hex", 7), 0xFFFFFFFFu);
    EXPECT_EQ(get_uint32_param("N", "a", 7), 7u);
    EXPECT_EQ(get_uint32_param("N", "over", 7), 2147483648u);
    EXPECT_EQ(get_uint16_param("N", "word", 7), 65535);
    EXPECT_EQ(get_uint16_param("N", "big", 7), 7);
    for (const char* pKey : {"over", "huge", "tail", "blank", "sign", "prefix", "fraction", "absent"})
        EXPECT_EQ(get_int_param("N", pKey, 7), 7) << pKey;
}

TEST_F(ConfigTest, BooleansTakeTheUsualWords) {
    Load("[B]\na=1\nb=TRUE;\nc=Yes\nd=on\ne=0\nf=False\ng=NO\nh=off\ni=2\nj=\n");
    for (const char* pKey : {"a", "b", "c", "d"})
        EXPECT_TRUE(get_bool_param("B", pKey, false)) << pKey;
    for (const char* pKey : {"e", "f", "g", "h"})
        EXPECT_FALSE(get_bool_param("B", pKey, true)) << pKey;
    for (const char* pKey : {"i", "j", "k"}) {
        EXPECT_TRUE(get_bool_param("B", pKey, true)) << pKey;
        EXPECT_FALSE(get_bool_param("B", pKey, false)) << pKey;
    }
}

TEST_F(ConfigTest, UnreadableFilesMeanDefaults) {
    Load("[N]\na=1\n");
    EXPECT_EQ(load_config_file(nullptr), CM_ERROR_INVALID_ARG);
    EXPECT_EQ(get_int_param("N", "a", 7), 1);
    EXPECT_EQ(load_config_file(m_Dir.PathOf("").c_str()), CM_ERROR_NOT_FOUND);  // a directory
    EXPECT_EQ(get_int_param("N", "a", 7), 7);
    EXPECT_EQ(load_config_file("/dev/zero"), CM_ERROR_NOT_FOUND);
}

TEST_F(ConfigTest, MalformedLinesAreSkippedAndNamed) {
    CCmTraceCapture trace;
    Load("[A]\nx=1\nno key here\n=5\n[open\ny=2");
    EXPECT_EQ(get_int_param("A", "y", 0), 2);
    const auto lines = trace.Lines();
    ASSERT_EQ(lines.size(), 3u);
    for (size_t n = 0; n < 3; ++n) {
        EXPECT_EQ(lines[n].m_dwLevel, CM_TRACE_WARNING);
        EXPECT_TRUE(lines[n].m_strText.ends_with("line=" + std::to_string(3 + n))) << lines[n].m_strText;
    }
}

TEST_F(ConfigTest, MalformedLinesWaitForTheTrace) {
    Load("oops\n");
    for (const size_t nTimes : {1u, 0u}) {
        CCmTraceCapture trace;
        EXPECT_EQ(trace.Count("line=1"), nTimes);
    }
}

TEST_F(ConfigTest, ReadersSeeAWholeFileWhileItIsReplaced) {
    m_Dir.Write("1", "[A]\nx=1\ny=1\n");
    m_Dir.Write("2", "[A]\nx=1\nz=1\n");
    load_config_file(m_Dir.PathOf("1").c_str());
    std::thread loader([this] {
        for (int n = 0; n < 100; ++n)
            load_config_file(m_Dir.PathOf(n % 2 ? "1" : "2").c_str());
    });
    for (int n = 0; n < 1000; ++n)
        ASSERT_EQ(get_int_param("A", "x", 0), 1);
    loader.join();
}

}  // namespace
