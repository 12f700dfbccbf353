#include "talvo/http/channel/channel_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/http/channel/channel_options.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/message/http_url.h"

namespace {

CCmLiveCounter s_Live("CCmChannelFile");

constexpr off_t MAX_SIZE = 0x100000;
constexpr size_t PIECE = 8192;

// The descriptor of a regular file, -1 for anything else. On a FIFO a plain open would block until a writer opens it.
int OpenRegularFile(const char* aName) {
    const int nFd = open(aName, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat status {};
    if (nFd == -1 || (fstat(nFd, &status) == 0 && S_ISREG(status.st_mode)))
        return nFd;
    close(nFd);
    return -1;
}

}  // namespace

CCmChannelFile::CCmChannelFile() { ++s_Live; }

CCmChannelFile::~CCmChannelFile() {
    Close_i();
    --s_Live;
}

BOOL CCmChannelFile::Init(CCmHttpUrl* aUrl) {
    if (!aUrl || aUrl->GetScheme() != "file")
        return FALSE;
    BOOL bGood = FALSE;
    return talvo::WithMemory([&] {
               CCmString strPath = aUrl->GetPath();
               std::replace(strPath.begin(), strPath.end(), '\\', '/');
               bGood = Init(strPath.starts_with('/') ? strPath : "/" + strPath);
           }) &&
           bGood;
}

BOOL CCmChannelFile::Init(const CCmString& aFileName) {
    if (aFileName.empty())
        return FALSE;
    Close_i();
    if (!talvo::WithMemory([&] { m_strFileName = aFileName; }))
        return FALSE;
    const BOOL bOneName = aFileName.find('\0') == CCmString::npos;
    m_nFd = bOneName ? OpenRegularFile(m_strFileName.c_str()) : -1;
    if (m_nFd == -1)
        CM_ERROR_TRACE_THIS("CCmChannelFile::Init, m_strFileName=" << m_strFileName);
    return m_nFd != -1;
}

CmResult CCmChannelFile::AsyncOpen(ICmChannelSink* aSink) {
    if (m_nFd == -1)
        return CM_ERROR_NOT_INITIALIZED;
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    if (m_bOpened)
        return CM_ERROR_ALREADY_INITIALIZED;
    m_pSink = aSink;
    m_bOpened = TRUE;
    if (m_bSynchronous) {
        Deliver_i();
        return CM_OK;
    }
    const CmResult rv = m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1);
    if (rv == CM_OK)
        return CM_OK;
    m_pSink = nullptr;
    m_bOpened = FALSE;
    return rv;
}

CmResult CCmChannelFile::Disconnect(CmResult) {
    m_pSink = nullptr;
    m_Timer.Cancel();
    Close_i();
    return CM_OK;
}

CmResult CCmChannelFile::SetOption(DWORD aCommand, void* aArg) {
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    if (aCommand != CM_OPT_CHANNEL_FILE_SYNC) {
        CM_WARNING_TRACE_THIS("CCmChannelFile::SetOption, unknow aCommand=" << aCommand << " aArg=" << aArg);
        return CM_ERROR_INVALID_ARG;
    }
    m_bSynchronous = *static_cast<BOOL*>(aArg);
    return CM_OK;
}

void CCmChannelFile::OnTimer(CCmTimerWrapperID*) { Deliver_i(); }

// A release without Disconnect ends the upcalls, although the object lives on until its timer.
void CCmChannelFile::OnReferenceDestory() {
    Disconnect(CM_OK);
    CCmReferenceControlTimerDeleteT::OnReferenceDestory();
}

void CCmChannelFile::Deliver_i() {
    const off_t lLength = lseek(m_nFd, 0, SEEK_END);
    if (lLength == -1 || lLength > MAX_SIZE) {
        CM_ERROR_TRACE_THIS(
            "CCmChannelFile::OnTimer, the file size must be less than 1M. lLen=" << std::max<off_t>(lLength, 0));
        End_i(CM_ERROR_NOT_AVAILABLE);
        return;
    }
    talvo::Upcall([this] { m_pSink->OnConnect(CM_OK, this); });
    if (!m_pSink)
        return;
    CCmString strContent;
    const CmResult rv = talvo::ResultWithMemory([&] {
        strContent.reserve(static_cast<size_t>(lLength) + PIECE);
        return Read_i(strContent) ? CM_OK : CM_ERROR_FAILURE;
    });
    if (rv != CM_OK) {
        End_i(rv);
        return;
    }
    const DWORD dwSize = static_cast<DWORD>(strContent.size());
    CCmMessageBlock block(dwSize, strContent.data(), CCmMessageBlock::DONT_DELETE, dwSize);
    talvo::Upcall([&] { m_pSink->OnReceive(block, this, nullptr); });
    if (m_pSink)
        End_i(CM_OK);
}

// If the file grows meanwhile, reads one byte beyond the limit and no further: the file is refused then, not truncated.
BOOL CCmChannelFile::Read_i(CCmString& aContent) const {
    char buffer[PIECE];
    for (;;) {
        const size_t dwLeft = static_cast<size_t>(MAX_SIZE) + 1 - aContent.size();
        const ssize_t lRead = pread(m_nFd, buffer, std::min(PIECE, dwLeft), static_cast<off_t>(aContent.size()));
        if (lRead == -1 && errno == EINTR)
            continue;
        if (lRead <= 0)
            return lRead == 0;
        aContent.append(buffer, static_cast<size_t>(lRead));
        if (aContent.size() > static_cast<size_t>(MAX_SIZE))
            return FALSE;
    }
}

void CCmChannelFile::End_i(CmResult aReason) {
    Close_i();
    if (ICmChannelSink* pSink = std::exchange(m_pSink, nullptr))
        talvo::Upcall([&] { pSink->OnDisconnect(aReason, this); });
}

void CCmChannelFile::Close_i() {
    if (m_nFd != -1)
        close(std::exchange(m_nFd, -1));
}
