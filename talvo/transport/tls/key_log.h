// A file of the secrets of TLS connections.
#pragma once

#include <memory>
#include <string>

#include "talvo/transport/tls/ssl_problem.h"

namespace talvo {

// Any thread.
class CKeyLog {
public:
    explicit CKeyLog(int aFd) : m_Fd(aFd) {}
    ~CKeyLog();
    CKeyLog(const CKeyLog&) = delete;
    CKeyLog& operator=(const CKeyLog&) = delete;

    // Appends to the file, which only its owner may read. Throws std::bad_alloc.
    static CSslProblem Open(const std::string& aPath, std::shared_ptr<const CKeyLog>& aLog);

    // One write of the system for one line: lines of several processes do not mix. A full disk loses lines.
    void Write(const char* aLine) const;

private:
    const int m_Fd;
};

}  // namespace talvo
