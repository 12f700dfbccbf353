// The directory that is served. No path leads out of it.
#pragma once

#include <string>

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

// A page with links to the entries of aDirectory, which was opened at aPath. It has no link to entries that a request could not
// get: pipes and devices, unreadable files, symbolic links that lead outside. Entries beyond a limit are omitted.
std::string MakeDirectoryPage(const ServedDirectory& aRoot, FileHandle aDirectory, const std::string& aPath);

}  // namespace tool
