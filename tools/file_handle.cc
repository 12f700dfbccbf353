#include "tools/file_handle.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace tool {

FileHandle& FileHandle::operator=(FileHandle&& aRight) noexcept {
    std::swap(m_nFd, aRight.m_nFd);
    return *this;
}

FileHandle::~FileHandle() { Close(); }

int FileHandle::Detach() { return std::exchange(m_nFd, -1); }

bool FileHandle::Close() {
    const int nFd = Detach();
    return nFd < 0 || close(nFd) == 0;
}

bool WriteAll(int aFd, std::string_view aBytes) {
    while (!aBytes.empty()) {
        const ssize_t nDone = write(aFd, aBytes.data(), aBytes.size());
        if (nDone < 0 && errno == EINTR)
            continue;
        if (nDone <= 0)
            return false;
        aBytes.remove_prefix(static_cast<size_t>(nDone));
    }
    return true;
}

}  // namespace tool
