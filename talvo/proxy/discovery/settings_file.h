// A file of settings that is read again when it has changed.
#pragma once

#include <sys/types.h>

#include <utility>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// One thread. Anything but a regular file of at most 1 MiB counts as empty, so no pipe or device blocks the reader.
class TALVO_API CSettingsFile {
public:
    static constexpr size_t LONGEST = 1 << 20;

    explicit CSettingsFile(CCmString aPath) : m_strPath(std::move(aPath)) {}

    // TRUE: the file was read, for the first time or because its time, its size or the file itself has changed. One system call
    // if it has not. Throws std::bad_alloc.
    BOOL Read();

    const CCmString& GetPath() const { return m_strPath; }
    const CCmString& GetText() const { return m_strText; }

private:
    struct CState {
        dev_t m_Device = 0;
        ino_t m_Inode = 0;
        off_t m_Size = -1;  // -1: there is no such file
        int64_t m_llModifiedNsec = 0;

        bool operator==(const CState&) const = default;
    };

    CState FindState_i() const;

    CCmString m_strPath;
    CCmString m_strText;
    CState m_State;
    BOOL m_bRead = FALSE;
};

}  // namespace talvo
