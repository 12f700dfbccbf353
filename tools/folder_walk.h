// The files and folders that `talvo send` sends, one after the other.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "tools/file_handle.h"

namespace tool {

// Goes through the paths and all that is in their folders, depth first, with one open directory a level. A path may be a
// symbolic link. Within a folder no link is followed: each entry is opened in its own directory, and never by a path.
class FolderWalk {
public:
    static constexpr const char* INPUT = "-";  // the path of stdin

    enum EKind {
        FILE,     // m_File is open for reading
        FOLDER,   // its entries follow, and then its LEAVE
        LEAVE,    // the innermost folder has no more entries
        SKIPPED,  // a link, or neither a file nor a folder
        PROBLEM   // cannot be read; m_strProblem is why
    };
    struct Entry {
        EKind m_Kind = PROBLEM;
        std::string m_strPath;  // for people
        std::string m_strName;  // in its folder
        std::string m_strProblem;
        FileHandle m_File;
        struct stat m_Status {};
        bool m_bInput = false;  // a FILE that is stdin: its size is not known
    };

    // aInputName: the name of stdin.
    FolderWalk(std::vector<std::string> aPaths, std::string aInputName);
    ~FolderWalk();
    FolderWalk(const FolderWalk&) = delete;
    FolderWalk& operator=(const FolderWalk&) = delete;

    // false: there are no more.
    bool Next(Entry& aEntry);
    // The paths of the constructor that have not been reached.
    size_t GetLeft() const { return m_vecPaths.size() - m_stNext; }

    // The name of a file or folder at the receiver: the last part of the path.
    static std::string GetName(const std::string& aPath);

private:
    struct Level {
        std::unique_ptr<DIR, int (*)(DIR*)> m_pDirectory;
        std::string m_strPath;
    };

    void NextPath(Entry& aEntry);
    void NextInFolder(Entry& aEntry);
    void Judge(int aDirectory, const char* aName, int aFlags, Entry& aEntry);
    void Enter(Entry& aEntry);

    const std::vector<std::string> m_vecPaths;
    const std::string m_strInputName;
    size_t m_stNext = 0;
    std::vector<Level> m_vecLevels;
};

}  // namespace tool
