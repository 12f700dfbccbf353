// The directory that is served, and that nothing leads out of.
#pragma once

#include <string>

#include "tools/file_handle.h"

namespace tool {

// Held open, so that it stays the same directory even if its path comes to mean another.
class ServedDirectory {
public:
    // "" or what is wrong.
    std::string Open(const std::string& aPath);

    // Opens the regular file or the directory at a relative path for reading; "" is the directory itself. Symbolic links are
    // followed while they stay inside. Without a file errno says why: EPERM for anything else, which is left untouched.
    FileHandle OpenAt(const std::string& aPath) const;

private:
    int OpenInside(const std::string& aPath, int aFlags) const;

    FileHandle m_Directory;
};

// A page with links to what lies in aDirectory, which was opened at aPath. There is no link to what would be refused: pipes and
// devices, what may not be read, symbolic links that lead outside. Entries beyond a limit are left out.
std::string MakeDirectoryPage(const ServedDirectory& aRoot, FileHandle aDirectory, const std::string& aPath);

}  // namespace tool
