// Where trace lines are kept on disk. Inner part of the trace, which calls it with its lock held.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "talvo/base/trace.h"

namespace talvo {

// One open trace file of either mode. docs/trace.md has the formats.
//
// Lines wait in memory until there are enough of them, but never more than 64 KiB. What the system refuses to write is lost:
// a full disk, or a pipe that is not read, stops the trace and nothing else.
class CCmTraceFile {
public:
    // Creates the file or goes on where an earlier process left it: a plain file at its end, a circular one at its offset (a
    // file without a valid offset is begun anew). Does not wait. Null, with errno, when it cannot be opened: ENXIO for a pipe
    // without a reader, ESPIPE for a circular file that is a pipe or a device.
    static std::unique_ptr<CCmTraceFile> Open(const CCmTraceFileSettings& aSettings);

    virtual ~CCmTraceFile();
    CCmTraceFile(const CCmTraceFile&) = delete;
    CCmTraceFile& operator=(const CCmTraceFile&) = delete;

    // aLine is whole, with its time stamp and line end. This alone may throw std::bad_alloc, and the line is lost then.
    // aAtOnce: it and what waited before it go to the file now.
    void WriteLine(std::string aLine, BOOL aAtOnce);
    void Flush();

    // From now on no line waits.
    void StopBuffering();

protected:
    CCmTraceFile(HANDLE aFd, DWORD aFlushPerLines) : m_Fd(aFd), m_dwFlushPerLines(aFlushPerLines) {}

    // Puts the lines to the file; room was made for each.
    virtual void Store(std::string_view aLines) = 0;
    // Called before aLine joins aWaiting bytes: flushes if they may not be stored together, cuts a line that fits nowhere.
    virtual void MakeRoom(size_t aWaiting, std::string& aLine);

    HANDLE GetFd() const { return m_Fd; }

private:
    static std::unique_ptr<CCmTraceFile> Make(HANDLE aFd, const CCmTraceFileSettings& aSettings);

    const HANDLE m_Fd;  // owned
    DWORD m_dwFlushPerLines;
    DWORD m_dwWaiting = 0;  // lines
    std::string m_strWaiting;
};

}  // namespace talvo
