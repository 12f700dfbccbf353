#include "talvo/base/config.h"

#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/test.h"

namespace {

class ConfigTest : public testing::Test {
protected:
    void Load(const std::string& aText) { ASSERT_EQ(load_config_file(m_Dir.Write("talvo.cfg", aText).c_str()), CM_OK); }
    ~ConfigTest() override { load_config_file("/nonexistent/talvo.cfg"); }

    const CCmTempDir m_Dir;
};

TEST_F(ConfigTest, SectionsKeysAndValuesAreTrimmed) {
    Load("top=0\r\n# [No]\n;a=1\n\n [ Net ] \r\n a = b c ;\r\nlast=1\nlast=2;\nequal=x=y\n[net]\na=other\n[Net]\nagain=;;");
    const char* const CASES[][3] = {
        {"", "top", "0"}, {"Net", "a", "b c"},   {"net", "a", "other"}, {"Net", "last", "2"},  {"Net", "equal", "x=y"},
        {"No", "a", "-"}, {"Net", "again", ";"}, {nullptr, "a", "-"},   {"Net", nullptr, "-"},
    };
    for (const auto& pCase : CASES)
        EXPECT_EQ(get_string_param(pCase[0], pCase[1], "-"), pCase[2]);
}

TEST_F(ConfigTest, WhatIsNoValueOfTheKindGivesTheDefault) {
    Load(
        "[N]\na=-12;\nhex=0xFFffFFFF\nmin=-2147483648\nover=2147483648\nhuge=99999999999999999999\n"
        "tail=12x\nblank=\nsign=-\nprefix=0x\n");
    EXPECT_EQ(get_int_param("N", "a", 7), -12);
    EXPECT_EQ(get_int_param("N", "min", 7), INT32_MIN);
    EXPECT_EQ(get_uint32_param("N", "hex", 7), 0xFFFFFFFFu);
    EXPECT_EQ(get_uint32_param("N", "a", 7), 7u);
    for (const char* pKey : {"hex", "over", "huge", "tail", "blank", "sign", "prefix", "absent"})
        EXPECT_EQ(get_int_param("N", pKey, 7), 7) << pKey;
}

TEST_F(ConfigTest, UnreadableFilesMeanDefaults) {
    Load("[N]\na=1\n");
    EXPECT_EQ(load_config_file(m_Dir.PathOf("").c_str()), CM_ERROR_NOT_FOUND);  // a directory
    EXPECT_EQ(get_int_param("N", "a", 7), 7);
    Load(std::string(1 << 20, '#'));
    EXPECT_EQ(load_config_file(m_Dir.Write("talvo.cfg", std::string((1 << 20) + 1, '#')).c_str()), CM_ERROR_NOT_FOUND);
}

// The one line comes even if the trace is switched on only afterwards.
TEST_F(ConfigTest, AFileThatOthersMayWriteIsRefused) {
    const std::string strPath = m_Dir.Write("talvo.cfg", "[N]\na=1\n");
    for (const mode_t nMode : {0644, 0664, 0646, 0600}) {
        const bool bRefused = (nMode & 022) != 0;
        chmod(strPath.c_str(), nMode);
        EXPECT_EQ(load_config_file(strPath.c_str()), bRefused ? CM_ERROR_NOT_AVAILABLE : CM_OK) << nMode;
        EXPECT_EQ(get_int_param("N", "a", 7), bRefused ? 7 : 1);
        CCmTraceCapture trace;
        EXPECT_EQ(trace.Lines().size(), bRefused ? 1u : 0u);
        EXPECT_EQ(trace.Count("load_config_file, file is refused: users other than its owner may write it, path="), bRefused);
    }
    for (const mode_t nFolder : {0777, 01777, 0775, 0700}) {
        chmod(m_Dir.PathOf("").c_str(), nFolder);
        EXPECT_EQ(load_config_file(strPath.c_str()), nFolder == 0777 ? CM_ERROR_NOT_AVAILABLE : CM_OK) << nFolder;
    }
    EXPECT_EQ(load_config_file("/dev/null"), CM_ERROR_NOT_AVAILABLE);
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    ASSERT_EQ(chown(strPath.c_str(), 65534, 65534), 0);
    EXPECT_EQ(load_config_file(strPath.c_str()), CM_ERROR_NOT_AVAILABLE);
}

}  // namespace
