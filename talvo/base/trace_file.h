// Trace files on disk. Internal to the trace, which calls this with its lock held.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "talvo/base/trace.h"

namespace talvo {

// One open trace file of either mode. docs/trace.md has the formats.
//
// Lines are buffered up to the configured count, but never more than 64 KiB. Bytes that the system refuses are lost: a full
// disk or a pipe without a reader stops the trace and nothing else.
class CCmTraceFile {
public:
    // Creates the file, or continues one from an earlier process: a plain file at its end, a circular one at its offset. A
    // circular file without a valid offset starts again empty. Does not wait. Null, with errno, if it cannot be opened: ENXIO
    // for a pipe without a reader, ESPIPE for a circular file that is a pipe or a device.
    static std::unique_ptr<CCmTraceFile> Open(const CCmTraceFileSettings& aSettings);

    virtual ~CCmTraceFile();
    CCmTraceFile(const CCmTraceFile&) = delete;
    CCmTraceFile& operator=(const CCmTraceFile&) = delete;

    // aLine is complete, with its time stamp and line end. aAtOnce: write it and the buffered lines now. Only this function may
    // throw std::bad_alloc; the line is lost then.
    void WriteLine(std::string aLine, BOOL aAtOnce);
    void Flush();

    // No line is buffered from now on.
    void StopBuffering();

protected:
    CCmTraceFile(HANDLE aFd, DWORD aFlushPerLines) : m_Fd(aFd), m_dwFlushPerLines(aFlushPerLines) {}

    // Writes the lines to the file. MakeRoom has made room for each.
    virtual void Store(std::string_view aLines) = 0;
    // Called before aLine is added to aWaiting buffered bytes. Flushes if both may not be stored together; cuts a line that can
    // never fit.
    virtual void MakeRoom(size_t aWaiting, std::string& aLine);

    HANDLE GetFd() const { return m_Fd; }

private:
    static std::unique_ptr<CCmTraceFile> Make(HANDLE aFd, const CCmTraceFileSettings& aSettings);

    const HANDLE m_Fd;  // owned
    DWORD m_dwFlushPerLines;
    DWORD m_dwWaiting = 0;  // buffered lines
    std::string m_strWaiting;
};

}  // namespace talvo
