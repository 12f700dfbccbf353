#include "talvo/transport/tls/key_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>
#include <utility>

namespace talvo {

CKeyLog::~CKeyLog() { close(m_Fd); }

CSslProblem CKeyLog::Open(const std::string& aPath, std::shared_ptr<const CKeyLog>& aLog) {
    const int fd = open(aPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd == -1)
        return CSslProblem::FromErrno(aPath);
    auto pLog = std::make_shared<CKeyLog>(fd);
    if (fchmod(fd, S_IRUSR | S_IWUSR) != 0)  // one that existed
        return CSslProblem::FromErrno(aPath);
    aLog = std::move(pLog);
    return {};
}

void CKeyLog::Write(const char* aLine) const {
    char newline[] = "\n";
    const iovec pieces[] = {{const_cast<char*>(aLine), std::strlen(aLine)}, {newline, 1}};
    [[maybe_unused]] const ssize_t lWritten = writev(m_Fd, pieces, 2);
}

}  // namespace talvo
