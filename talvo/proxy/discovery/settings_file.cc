#include "talvo/proxy/discovery/settings_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "talvo/base/read_text.h"
#include "talvo/base/trace.h"

namespace talvo {

namespace {

CCmString ReadRegularFile(const CCmString& aPath) {
    const HANDLE fd = open(aPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd == CM_INVALID_HANDLE)
        return {};
    struct CClose {
        ~CClose() { close(m_Fd); }
        const HANDLE m_Fd;
    } const closing{fd};
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    const auto strText = ReadText(fd, CSettingsFile::LONGEST);
    if (!strText)
        CM_WARNING_TRACE("CSettingsFile::Read, unreadable or more than 1 MiB. path=" << aPath);
    return strText.value_or(CCmString());
}

}  // namespace

BOOL CSettingsFile::Read() {
    const CState state = FindState_i();
    if (m_bRead && state == m_State)
        return FALSE;
    m_strText = state.m_Size >= 0 ? ReadRegularFile(m_strPath) : CCmString();
    m_State = state;
    m_bRead = TRUE;
    return TRUE;
}

CSettingsFile::CState CSettingsFile::FindState_i() const {
    struct stat status {};
    if (stat(m_strPath.c_str(), &status) != 0)
        return {};
    return {status.st_dev, status.st_ino, status.st_size, int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec};
}

}  // namespace talvo
