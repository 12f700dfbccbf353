// Descriptors that close themselves, and all of a text into one.
#pragma once

#include <string_view>

namespace tool {

class FileHandle {
public:
    explicit FileHandle(int aFd = -1) : m_nFd(aFd) {}
    FileHandle(FileHandle&& aRight) noexcept : m_nFd(aRight.Detach()) {}
    FileHandle& operator=(FileHandle&& aRight) noexcept;
    ~FileHandle();

    int Get() const { return m_nFd; }
    explicit operator bool() const { return m_nFd >= 0; }
    int Detach();
    // Some file systems report a failed write only here. false: errno says why; closed in either case.
    bool Close();

private:
    int m_nFd;
};

// Waits where the descriptor does. false: errno says why, and a part may have been written.
bool WriteAll(int aFd, std::string_view aBytes);

}  // namespace tool
