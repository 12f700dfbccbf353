// A file that is being received. It gets its name only when it is whole and on the disk.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/file_handle.h"

namespace tool {

// Written and locked under a temporary name in the directory. Publish renames it; the destructor removes an unpublished file. A
// killed process leaves at most the temporary file. The operations return "" or an error text.
class IncomingFile {
public:
    explicit IncomingFile(int aDirectory) : m_nDirectory(aDirectory) {}
    ~IncomingFile();
    IncomingFile(const IncomingFile&) = delete;
    IncomingFile& operator=(const IncomingFile&) = delete;

    std::string Create();
    std::string Write(std::string_view aBytes);

    // Flushes to the disk, then renames in one step. Without aReplace an existing file of that name, even a very new one, is
    // kept and this one is removed.
    std::string Publish(const std::string& aName, bool aReplace);

    // Returns "" if no obstacle to publishing aName is found now, or an error text. Only regular files are replaced, never
    // links, pipes and devices, whatever their target.
    static std::string CheckTarget(int aDirectory, const std::string& aName, bool aReplace);

    // Removes the temporary files of killed processes from the directory: those that are not locked and unchanged for an hour.
    // Returns their names.
    static std::vector<std::string> RemoveLeftovers(int aDirectory);

private:
    bool Rename_i(const std::string& aName, bool aReplace);

    const int m_nDirectory;  // not owned
    FileHandle m_File;
    std::string m_strTemporary;  // empty: there is no temporary file
};

}  // namespace tool
