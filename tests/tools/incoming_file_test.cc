#include "tools/incoming_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

namespace tool {

class ToolIncomingFileTest : public testing::Test {
protected:
    ~ToolIncomingFileTest() override { close(m_nDirectory); }

    std::string Publish(const std::string& aText, bool aReplace) {
        IncomingFile file(m_nDirectory);
        EXPECT_EQ("", file.Create());
        EXPECT_EQ("", file.Write(aText));
        return file.Publish("a", aReplace);
    }

    const CCmTempDir m_Dir;
    const int m_nDirectory = open(m_Dir.PathOf("").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
};

TEST_F(ToolIncomingFileTest, BrokenTransferLeavesNothing) {
    {
        IncomingFile file(m_nDirectory);
        EXPECT_EQ("", file.Create());
        EXPECT_EQ("", file.Write("half"));
        EXPECT_FALSE(std::filesystem::exists(m_Dir.PathOf("a")));
    }
    EXPECT_TRUE(std::filesystem::is_empty(m_Dir.PathOf("")));
}

TEST_F(ToolIncomingFileTest, ExistingFileIsReplacedOnlyWhenAllowed) {
    m_Dir.Write("a", "old");  // came up after the target was looked for
    EXPECT_EQ("a file of that name exists", Publish("new", false));
    EXPECT_EQ("old", m_Dir.Read("a"));
    EXPECT_EQ("", Publish("new", true));
    EXPECT_EQ("new", m_Dir.Read("a"));
}

TEST_F(ToolIncomingFileTest, TargetIsJudgedWithoutFollowingLinks) {
    std::filesystem::create_symlink("/nowhere/at/all", m_Dir.PathOf("link"));
    std::filesystem::create_directory(m_Dir.PathOf("dir"));
    EXPECT_NE("", IncomingFile::CheckTarget(m_nDirectory, "link", false));
    EXPECT_EQ("", IncomingFile::CheckTarget(m_nDirectory, "link", true));
    EXPECT_NE("", IncomingFile::CheckTarget(m_nDirectory, "dir", true));
}

}  // namespace tool
