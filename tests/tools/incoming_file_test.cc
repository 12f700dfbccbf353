#include "tools/incoming_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

namespace tool {

class ToolIncomingFileTest : public testing::Test {
protected:
    ToolIncomingFileTest() {
        char szPath[] = "/tmp/talvo-test-XXXXXX";
        m_Path = mkdtemp(szPath);
        m_nDirectory = open(m_Path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    ~ToolIncomingFileTest() override {
        close(m_nDirectory);
        std::filesystem::remove_all(m_Path);
    }

    void Put(const std::string& aName, const std::string& aText) { std::ofstream(m_Path / aName) << aText; }
    std::string Get(const std::string& aName) {
        std::ifstream file(m_Path / aName);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::set<std::string> List() {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_Path))
            names.insert(entry.path().filename());
        return names;
    }
    std::string Publish(const std::string& aText, bool aReplace) {
        IncomingFile file(m_nDirectory);
        EXPECT_EQ("", file.Create());
        EXPECT_EQ("", file.Write(aText));
        return file.Publish("a", aReplace);
    }

    std::filesystem::path m_Path;
    int m_nDirectory;
};

TEST_F(ToolIncomingFileTest, IsSeenUnderItsNameOnlyWhenWhole) {
    {
        IncomingFile file(m_nDirectory);
        ASSERT_EQ("", file.Create());
        ASSERT_EQ("", file.Write("text"));
        EXPECT_EQ(0u, List().count("a"));
        ASSERT_EQ("", file.Publish("a", false));
    }
    EXPECT_EQ((std::set<std::string>{"a"}), List());
    EXPECT_EQ("text", Get("a"));
}

TEST_F(ToolIncomingFileTest, BrokenTransferLeavesNothing) {
    {
        IncomingFile file(m_nDirectory);
        ASSERT_EQ("", file.Create());
        file.Write("half");
    }
    EXPECT_TRUE(List().empty());
}

TEST_F(ToolIncomingFileTest, ExistingFileIsReplacedOnlyWhenAllowed) {
    Put("a", "old");  // came up after the target was looked for
    EXPECT_EQ("a file of that name exists", Publish("new", false));
    EXPECT_EQ("old", Get("a"));
    EXPECT_EQ("", Publish("new", true));
    EXPECT_EQ("new", Get("a"));
    EXPECT_EQ((std::set<std::string>{"a"}), List());
}

TEST_F(ToolIncomingFileTest, TargetIsJudgedWithoutFollowingLinks) {
    std::filesystem::create_symlink("/nowhere/at/all", m_Path / "link");
    std::filesystem::create_directory(m_Path / "dir");
    EXPECT_EQ("", IncomingFile::CheckTarget(m_nDirectory, "free", false));
    EXPECT_NE("", IncomingFile::CheckTarget(m_nDirectory, "link", false));
    EXPECT_EQ("", IncomingFile::CheckTarget(m_nDirectory, "link", true));
    EXPECT_NE("", IncomingFile::CheckTarget(m_nDirectory, "dir", true));
}

}  // namespace tool
