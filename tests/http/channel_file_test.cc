#include "talvo/http/channel/channel_file.h"

#include <sys/stat.h>

#include "talvo/http/channel/channel_options.h"
#include "talvo/http/channel_manager.h"
#include "talvo/http/message/http_url.h"
#include "tests/support/channel_sink.h"
#include "tests/support/network_fixture.h"

namespace {

class ChannelFileTest : public testing::Test {
protected:
    CCmRefPtrT<CCmChannelFile> Open(const std::string& aName) {
        CCmRefPtrT<CCmChannelFile> pFile(new CCmChannelFile);
        EXPECT_TRUE(pFile->Init(aName));
        EXPECT_EQ(CM_OK, pFile->AsyncOpen(&m_Sink));
        return pFile;
    }
    const CTestNetwork m_Network;
    const CCmTempDir m_Dir;
    CTestChannelSink m_Sink;
};

TEST_F(ChannelFileTest, DeliversUpToOneMebibyteAtOnce) {
    for (const size_t nSize : {size_t{0}, size_t{5}, size_t{1} << 20, (size_t{1} << 20) + 1}) {
        m_Sink = CTestChannelSink();
        const std::string strContent = Pattern(nSize);
        const auto pFile = Open(m_Dir.Write("file", strContent));
        EXPECT_EQ("", m_Sink.Take());
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pFile->AsyncOpen(&m_Sink));
        m_Network.RunUntil([&] { return m_Sink.m_nDisconnects == 1; });
        const bool bFits = nSize <= size_t{1} << 20;
        EXPECT_TRUE(m_Sink.Take() == (bFits ? "connect, receive " + strContent + ", disconnect 0" : "disconnect 10009"));
        EXPECT_EQ(bFits ? 1 : 0, m_Sink.m_nReceives);
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pFile->AsyncOpen(&m_Sink));
    }
}

TEST_F(ChannelFileTest, TakesUrlsOfFilesAndNamesAsTheyStand) {
    const std::string strPath = m_Dir.Write("file", "content");
    CCmRefPtrT<CCmHttpUrl> pUrl;
    EXPECT_EQ(CM_OK, CCmChannelManager::Instance()->CreateUrl(pUrl.ParaOut(), "file://" + strPath));
    const CCmRefPtrT<CCmChannelFile> pFile(new CCmChannelFile);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pFile->AsyncOpen(&m_Sink));
    EXPECT_TRUE(pFile->Init(pUrl.Get()));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pFile->AsyncOpen(nullptr));
    BOOL bOn = TRUE;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pFile->SetOption(CM_OPT_CHANNEL_FILE_SYNC, nullptr));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pFile->SetOption(302, &bOn));
    EXPECT_EQ(CM_OK, pFile->SetOption(CM_OPT_CHANNEL_FILE_SYNC, &bOn));
    EXPECT_EQ(CM_OK, pFile->AsyncOpen(&m_Sink));
    EXPECT_EQ("connect, receive content, disconnect 0", m_Sink.Take());
    EXPECT_EQ(CM_ERROR_NOT_IMPLEMENTED, pFile->OpenWithSink(&m_Sink));

    EXPECT_EQ(CM_OK, CCmChannelManager::Instance()->CreateUrl(pUrl.ParaOut(), "http://h" + strPath));
    EXPECT_FALSE(pFile->Init(pUrl.Get()));
    EXPECT_FALSE(pFile->Init(static_cast<CCmHttpUrl*>(nullptr)));
    ASSERT_EQ(0, mkfifo(m_Dir.PathOf("fifo").c_str(), 0600));
    const CCmTraceCapture trace;
    const std::string NAMES[] = {m_Dir.PathOf("none"), m_Dir.PathOf("fifo"), m_Dir.PathOf("."), "/dev/zero", strPath + '\0'};
    for (const std::string& strName : NAMES)
        EXPECT_FALSE(pFile->Init(strName)) << strName;
    EXPECT_EQ(5u, trace.Count("CCmChannelFile::Init, m_strFileName="));
    EXPECT_FALSE(pFile->Init(std::string()));
}

}  // namespace
