#include "talvo/base/trace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace talvo {

namespace {

constexpr size_t MAX_WAITING = 64 * 1024;

// A circular file: the offset of the next line, then the lines up to the configured size, then again from the beginning.
//
//  0                          32                  offset
//  | offset as "%-31ld\n"     | newer lines ...   | marker | older lines ... |
constexpr off_t HEADER_LENGTH = 32;
constexpr std::string_view MARKER = "************************* Current Trace Point *************************\n\n";

// Writes all of aBytes at aOffset, or at the end of an appending file if that is -1.
bool WriteAll(HANDLE aFd, std::string_view aBytes, off_t aOffset) {
    while (!aBytes.empty()) {
        const ssize_t nDone =
            aOffset < 0 ? write(aFd, aBytes.data(), aBytes.size()) : pwrite(aFd, aBytes.data(), aBytes.size(), aOffset);
        if (nDone < 0 && errno == EINTR)
            continue;
        if (nDone <= 0)
            return false;
        aBytes.remove_prefix(static_cast<size_t>(nDone));
        if (aOffset >= 0)
            aOffset += nDone;
    }
    return true;
}

class CCmTraceFilePlain final : public CCmTraceFile {
public:
    CCmTraceFilePlain(HANDLE aFd, const CCmTraceFileSettings& aSettings) : CCmTraceFile(aFd, aSettings.m_dwFlushPerLines) {}
    ~CCmTraceFilePlain() override { Flush(); }

protected:
    void Store(std::string_view aLines) override { WriteAll(GetFd(), aLines, -1); }
};

// Removes the SIGPIPE of this thread's writes, unless one was pending before.
class CNoPipeSignal {
public:
    CNoPipeSignal() {
        sigset_t pending;
        sigemptyset(&m_Pipe);
        sigaddset(&m_Pipe, SIGPIPE);
        sigpending(&pending);
        m_bMine = sigismember(&pending, SIGPIPE) == 0;
        pthread_sigmask(SIG_BLOCK, &m_Pipe, &m_Before);
    }
    ~CNoPipeSignal() {
        constexpr timespec NO_TIME{};
        if (m_bMine)
            sigtimedwait(&m_Pipe, nullptr, &NO_TIME);
        pthread_sigmask(SIG_SETMASK, &m_Before, nullptr);
    }
    CNoPipeSignal(const CNoPipeSignal&) = delete;
    CNoPipeSignal& operator=(const CNoPipeSignal&) = delete;

private:
    sigset_t m_Pipe;
    sigset_t m_Before;
    BOOL m_bMine;
};

// A pipe or a device. Writes never block: whole lines are lost while it is full or has no reader.
class CCmTraceFileStream final : public CCmTraceFile {
public:
    CCmTraceFileStream(HANDLE aFd, const CCmTraceFileSettings& aSettings) : CCmTraceFile(aFd, aSettings.m_dwFlushPerLines) {}
    ~CCmTraceFileStream() override { Flush(); }

protected:
    void Store(std::string_view aLines) override {
        const CNoPipeSignal noSignal;
        while (!aLines.empty()) {
            // A write to a pipe of at most this size is atomic.
            const std::string_view most = aLines.substr(0, PIPE_BUF);
            const std::string_view piece = most.substr(0, most.rfind('\n') + 1);
            const std::string_view lines = piece.empty() ? most : piece;
            WriteAll(GetFd(), lines, -1);
            aLines.remove_prefix(lines.size());
        }
    }
};

class CCmTraceFileCircular final : public CCmTraceFile {
public:
    CCmTraceFileCircular(HANDLE aFd, const CCmTraceFileSettings& aSettings)
        : CCmTraceFile(aFd, aSettings.m_dwFlushPerLines), m_llMaxSize(aSettings.m_dwMaxSize) {
        m_llOffset = ReadOffset();
        if (m_llOffset == 0)
            BeginAnew();
    }
    ~CCmTraceFileCircular() override { Flush(); }

protected:
    void Store(std::string_view aLines) override {
        const off_t llEnd = m_llOffset + static_cast<off_t>(aLines.size());
        if (!WriteAll(GetFd(), aLines, m_llOffset) || !WriteAll(GetFd(), MARKER, llEnd))
            return;
        m_llOffset = llEnd;
        WriteOffset();
    }

    void MakeRoom(size_t aWaiting, std::string& aLine) override {
        const size_t nLongest = static_cast<size_t>(m_llMaxSize - HEADER_LENGTH) - MARKER.size();
        if (aLine.size() > nLongest) {
            aLine.resize(nLongest);
            aLine.back() = '\n';
        }
        if (m_llOffset + static_cast<off_t>(aWaiting + aLine.size() + MARKER.size()) > m_llMaxSize) {
            Flush();
            Wrap();
        }
    }

private:
    // Cuts the file behind its last line: this removes the marker there, which is the only one and no longer marks the
    // position.
    void Wrap() {
        if (ftruncate(GetFd(), m_llOffset) == 0)
            m_llOffset = HEADER_LENGTH;
    }

    void BeginAnew() {
        m_llOffset = HEADER_LENGTH;
        if (ftruncate(GetFd(), 0) == 0)
            WriteOffset();
    }

    void WriteOffset() {
        char szHeader[HEADER_LENGTH + 1];
        std::snprintf(szHeader, sizeof(szHeader), "%-31ld\n", static_cast<long>(m_llOffset));
        WriteAll(GetFd(), {szHeader, HEADER_LENGTH}, 0);
    }

    // 0: there is no offset that fits the file and the configured size.
    off_t ReadOffset() const {
        char szHeader[HEADER_LENGTH + 1] = "";
        struct stat status {};
        if (pread(GetFd(), szHeader, HEADER_LENGTH, 0) != HEADER_LENGTH || fstat(GetFd(), &status) != 0)
            return 0;
        const long lOffset = std::strtol(szHeader, nullptr, 10);
        const bool bFits = lOffset >= HEADER_LENGTH && lOffset <= status.st_size && status.st_size <= m_llMaxSize;
        return bFits && szHeader[HEADER_LENGTH - 1] == '\n' ? lOffset : 0;
    }

    const off_t m_llMaxSize;
    off_t m_llOffset = 0;  // of the next stored line
};

}  // namespace

// Null, with errno: it failed.
std::unique_ptr<CCmTraceFile> CCmTraceFile::Make(HANDLE aFd, const CCmTraceFileSettings& aSettings) {
    struct stat status {};
    const BOOL bRegular = fstat(aFd, &status) == 0 && S_ISREG(status.st_mode);
    CCmTraceFile* pFile = nullptr;
    errno = ESPIPE;
    if (!bRegular && aSettings.m_bCircular)
        return nullptr;
    if (!bRegular)
        pFile = new (std::nothrow) CCmTraceFileStream(aFd, aSettings);
    else if (aSettings.m_bCircular)
        pFile = new (std::nothrow) CCmTraceFileCircular(aFd, aSettings);
    else
        pFile = new (std::nothrow) CCmTraceFilePlain(aFd, aSettings);
    if (!pFile)
        errno = ENOMEM;
    return std::unique_ptr<CCmTraceFile>(pFile);
}

// A pipe without a reader is refused; the call does not wait for one.
std::unique_ptr<CCmTraceFile> CCmTraceFile::Open(const CCmTraceFileSettings& aSettings) {
    const int nMode = aSettings.m_bCircular ? O_RDWR : O_WRONLY | O_APPEND;
    const HANDLE fd = open(aSettings.m_strPath.c_str(), nMode | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
    if (fd == CM_INVALID_HANDLE)
        return nullptr;
    std::unique_ptr<CCmTraceFile> pFile = Make(fd, aSettings);
    if (!pFile) {
        const int nError = errno;
        close(fd);
        errno = nError;
    }
    return pFile;
}

CCmTraceFile::~CCmTraceFile() { close(m_Fd); }

void CCmTraceFile::WriteLine(std::string aLine, BOOL aAtOnce) {
    MakeRoom(m_strWaiting.size(), aLine);
    m_strWaiting += aLine;
    ++m_dwWaiting;
    if (aAtOnce || m_dwWaiting >= m_dwFlushPerLines || m_strWaiting.size() >= MAX_WAITING)
        Flush();
}

void CCmTraceFile::Flush() {
    if (m_strWaiting.empty())
        return;
    Store(m_strWaiting);
    m_strWaiting.clear();
    m_dwWaiting = 0;
}

void CCmTraceFile::StopBuffering() {
    Flush();
    m_dwFlushPerLines = 1;
}

void CCmTraceFile::MakeRoom(size_t, std::string&) {}

}  // namespace talvo
