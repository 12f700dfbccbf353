// A folder at the receiver, in which files are received.
#pragma once

#include <memory>
#include <string>

#include "tools/failure.h"
#include "tools/file_handle.h"
#include "tools/frame.h"

namespace tool {

// An open directory: what is received in it is named relative to it, by a single name, so that no path and no link leads out of
// the receiver's own one. A folder that is made is private until it is finished, and has a file in it as a mark, so that a
// later session finishes it.
class IncomingFolder {
public:
    // The receiver's directory, which stays as it is.
    explicit IncomingFolder(FileHandle aDirectory) : m_Directory(std::move(aDirectory)) {}
    // For Open.
    explicit IncomingFolder(std::string aPath) : m_strPath(std::move(aPath)) {}

    // Opens or makes the folder of aEntry in aParent. aEntry's name has been checked.
    Failure Open(const IncomingFolder& aParent, const FrameEntry& aEntry);
    // A file has got its name. The receiver's directory is written to the disk now, another folder by Finish.
    Failure OnNewName() const { return m_strPath.empty() ? Flush() : Failure(); }
    // Writes the names in it to the disk, and gives the folder its mode and time, if it was made here.
    Failure Finish();

    int GetFd() const { return m_Directory.Get(); }
    // A name in the folder, for people.
    std::string GetPath(const std::string& aName) const { return m_strPath.empty() ? aName : m_strPath + "/" + aName; }

private:
    Failure Make(const IncomingFolder& aParent) const;
    bool IsMarked() const;
    Failure Flush() const;

    FileHandle m_Directory;
    std::string m_strPath;  // "": the receiver's directory
    FrameEntry m_Entry;
    bool m_bMade = false;
};

}  // namespace tool
