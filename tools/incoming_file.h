// A file that is being received: nobody sees it under its name before it is whole and on the disk.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// Written under a temporary name in the directory; Publish gives it its own. Destroyed before that, it is removed. A process
// that is killed leaves at most the temporary file. The operations return "" or, in words, what went wrong.
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

    // Why aName cannot be published, as far as it is known now; "" if nothing stands in the way.
    static std::string CheckTarget(int aDirectory, const std::string& aName, bool aReplace);

private:
    bool Rename_i(const std::string& aName, bool aReplace);
    std::string Close_i();

    const int m_nDirectory;  // not owned
    int m_nFd = -1;
    std::string m_strTemporary;  // empty: there is no temporary file
};

}  // namespace tool
