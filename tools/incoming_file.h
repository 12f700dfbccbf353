// A file that is being received. It gets its name only when it is whole and on the disk.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/failure.h"
#include "tools/file_handle.h"
#include "tools/frame.h"
#include "tools/incoming_folder.h"
#include "tools/sha256.h"

namespace tool {

// Written and locked under a temporary name in its folder. Publish renames it; the destructor removes an unpublished file
// unless KeepPart was called. A part that is left, also by a killed process, is continued by the next session that sends the
// same name, if its bytes are those that the sender has. Likewise a file of the same size may be there already.
class IncomingFile {
public:
    // aEntry's name has been checked. aReplace: an existing file is replaced.
    IncomingFile(std::shared_ptr<IncomingFolder> aFolder, FrameEntry aEntry, bool aReplace);
    ~IncomingFile();
    IncomingFile(const IncomingFile&) = delete;
    IncomingFile& operator=(const IncomingFile&) = delete;

    Failure Open();

    // The bytes that are there, of which the sender has to prove that it has the same. 0: none.
    uint64_t GetBeginning() const { return m_ullBeginning; }
    // Hashes a piece of them, so that other work goes on meanwhile. TRUE: all are hashed, and GetHash is valid.
    bool HashBeginning();
    // They are those of the sender, and hashed: Write continues them.
    void GoOn() { m_bWhole = m_Existing || m_bWhole; }
    // They are not.
    Failure Restart();

    Failure Write(std::string_view aBytes);
    // The SHA-256 of all bytes so far.
    std::string GetHash() const { return m_Hash.GetSoFar(); }

    // Sets mode and time, flushes to the disk, then renames in one step. Without aReplace an existing file of that name, even a
    // very new one, is kept and this one is removed.
    Failure Publish();
    // The destructor leaves the bytes so far for a later session, if that can continue them and there are any.
    void KeepPart();
    bool IsKept() const { return m_bKeep; }

    // Removes temporary files from the directory: those that are not locked and unchanged for a day. Returns their names.
    static std::vector<std::string> RemoveLeftovers(int aDirectory);

private:
    Failure CheckTarget(bool aReplace) const;
    bool IsSameSize();
    bool OpenPart();
    Failure OpenNew();
    bool Rename_i();

    const std::shared_ptr<IncomingFolder> m_pFolder;
    const FrameEntry m_Entry;
    const bool m_bReplace;
    FileHandle m_File;
    FileHandle m_Existing;       // a file of the final name and the same size, until it proves to be another one
    std::string m_strTemporary;  // empty: there is no temporary file
    bool m_bResumable = false;   // its name is that of a part
    bool m_bKeep = false;
    bool m_bWhole = false;  // the file is there already
    uint64_t m_ullBeginning = 0;
    uint64_t m_ullHashed = 0;  // of the beginning
    Sha256 m_Hash;
};

}  // namespace tool
