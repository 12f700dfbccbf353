// Descriptors that close themselves, and a function that writes a whole text to one.
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
    // Some file systems report a failed write only here. false: see errno. The descriptor is closed in both cases.
    bool Close();

private:
    int m_nFd;
};

// Blocks if the descriptor does. false: see errno; a part may have been written.
bool WriteAll(int aFd, std::string_view aBytes);

}  // namespace tool
