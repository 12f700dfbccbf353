#include "tools/incoming_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/test.h"
#include "tools/file_name.h"

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

// The same looks come again at the end: a pipe may have come up meanwhile.
TEST_F(ToolIncomingFileTest, OnlyRegularFilesAreReplaced) {
    m_Dir.Write("file", "");
    std::filesystem::create_symlink(m_Dir.PathOf("file"), m_Dir.PathOf("link"));
    std::filesystem::create_directory(m_Dir.PathOf("dir"));
    ASSERT_EQ(0, mkfifo(m_Dir.PathOf("a").c_str(), 0600));
    EXPECT_EQ("", IncomingFile::CheckTarget(m_nDirectory, "file", true));
    for (const char* pName : {"link", "dir", "a"})
        EXPECT_NE("", IncomingFile::CheckTarget(m_nDirectory, pName, true)) << pName;
    EXPECT_NE("", Publish("new", true));
    EXPECT_TRUE(std::filesystem::is_fifo(m_Dir.PathOf("a")));
}

TEST_F(ToolIncomingFileTest, LeftoversOfKilledProcessesGoByTheirAge) {
    IncomingFile inUse(m_nDirectory);
    ASSERT_EQ("", inUse.Create());
    const std::string strInUse = std::filesystem::directory_iterator(m_Dir.PathOf(""))->path().filename();
    const std::string strOld = MakeTemporaryName();
    for (const std::string& strName : {strOld, MakeTemporaryName(), std::string(".talvo-1.part"), std::string("a")})
        m_Dir.Write(strName, "half");
    const auto old = std::filesystem::file_time_type::clock::now() - std::chrono::hours(2);
    for (const std::string& strName : {strOld, strInUse, std::string(".talvo-1.part"), std::string("a")})
        std::filesystem::last_write_time(m_Dir.PathOf(strName), old);
    EXPECT_EQ(std::vector{strOld}, IncomingFile::RemoveLeftovers(m_nDirectory));
    EXPECT_FALSE(std::filesystem::exists(m_Dir.PathOf(strOld)));
}

}  // namespace tool
