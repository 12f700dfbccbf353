// A file that is being fetched, perhaps in several goes: nobody takes the beginning for the whole.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// Written as FILE.part and renamed to FILE when it is whole. Left behind in between, it can be gone on with: FILE.part.tag
// keeps what the server calls this version of the file, so that two versions are never mixed. The operations return "" or, in
// words, what went wrong.
class PartialFile {
public:
    explicit PartialFile(std::string aPath);
    ~PartialFile();
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    // Opens the beginning that is there, FILE.part or else FILE, or nothing.
    std::string OpenBeginning();
    // Starts from nothing, keeping aTag. Also after OpenBeginning.
    std::string Create(std::string_view aTag);

    std::string Write(std::string_view aBytes);

    // It is whole: takes its name.
    std::string Publish();

    uint64_t GetSize() const { return m_ullSize; }
    const std::string& GetTag() const { return m_strTag; }  // "": not known
    const std::string& GetPath() const { return m_strPath; }

private:
    std::string Open_i(int aFlags);

    const std::string m_strPath;
    const std::string m_strPart;
    const std::string m_strTagPath;
    int m_nFd = -1;
    uint64_t m_ullSize = 0;
    std::string m_strTag;
};

}  // namespace tool
