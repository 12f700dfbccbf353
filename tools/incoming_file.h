// A file that is being received: nobody sees it under its name before it is whole and on the disk.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/file_handle.h"

namespace tool {

// Written under a temporary name in the directory and locked meanwhile; Publish gives it its own. Destroyed before that, it is
// removed. A process that is killed leaves at most the temporary file. The operations return "" or, in words, what went wrong.
class IncomingFile {
public:
    explicit IncomingFile(int aDirectory) : m_nDirectory(aDirectory) {}
    ~IncomingFile();
    IncomingFile(const IncomingFile&) = delete;
    IncomingFile& operator=(const IncomingFile&) = delete;

    std::string Create();
    std::string Write(std::string_view aBytes);

    // Flushes to the disk, then renames in one step. Without aReplace a file that has the name, even if it came up a moment
    // ago, stays as it is and this one is removed.
    std::string Publish(const std::string& aName, bool aReplace);

    // Why aName cannot be published, as far as it is known now; "" if nothing stands in the way. Only regular files are ever
    // replaced: links, pipes and devices are not, whatever they lead to.
    static std::string CheckTarget(int aDirectory, const std::string& aName, bool aReplace);

    // Removes the temporary files that killed processes left in the directory: not locked, and unchanged for an hour. Their
    // names.
    static std::vector<std::string> RemoveLeftovers(int aDirectory);

private:
    bool Rename_i(const std::string& aName, bool aReplace);

    const int m_nDirectory;  // not owned
    FileHandle m_File;
    std::string m_strTemporary;  // empty: there is no temporary file
};

}  // namespace tool
