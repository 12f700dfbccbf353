// The directory that is served. No path leads out of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/file_handle.h"

namespace tool {

// Kept open, so that it stays the same directory even if its path changes its meaning.
class ServedDirectory {
public:
    // Returns "" or an error text.
    std::string Open(const std::string& aPath);

    // Opens the regular file or the directory at a relative path for reading; "" is the directory itself. Symbolic links are
    // followed inside the directory. Returns no file if it fails, see errno: EPERM for any other kind of file, which is not
    // opened.
    FileHandle OpenAt(const std::string& aPath) const;

private:
    int OpenInside(const std::string& aPath, int aFlags) const;

    FileHandle m_Directory;
};

struct DirectoryEntry {
    std::string m_strName;
    bool m_bDirectory = false;
    uint64_t m_ullSize = 0;    // 0 for a directory
    int64_t m_llModified = 0;  // seconds since 1970 UTC
};

struct DirectoryListing {
    static constexpr size_t MAX_ENTRIES = 10000;

    std::vector<DirectoryEntry> m_Entries;
    bool m_bIncomplete = false;  // further entries were omitted
    bool m_bHasParent = false;   // a request can get the directory above
};

// aListing (out): the entries of aDirectory, which was opened at aPath, but for those that a request could not get: pipes and
// devices, unreadable files, symbolic links that lead outside. false: it cannot be read, see errno.
bool ListDirectory(const ServedDirectory& aRoot, FileHandle aDirectory, const std::string& aPath, DirectoryListing& aListing);

}  // namespace tool
