// A file that is being fetched, perhaps in several goes: nobody takes the beginning for the whole.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/file_handle.h"
#include "tools/output.h"

namespace tool {

// Written as FILE.part and renamed to FILE when it is whole; until then FILE is as it was. A part that a broken transfer left
// behind can be continued: FILE.part.tag keeps what the server calls this version of the file, so that two versions are never
// mixed. FILE.part is locked while it is written, so that a second process refuses. Neither of the two is made or opened
// through a symbolic link.
class PartialFile : public Output {
public:
    // Behind the name of FILE, of what stands beside it.
    static constexpr std::string_view SUFFIX = ".part";
    static constexpr std::string_view LONGEST_SUFFIX = ".part.tag";

    explicit PartialFile(std::string aPath);

    // Looks for what is there, FILE.part or else FILE, and touches nothing. GetSize and GetTag tell of it.
    std::string LookForBeginning();
    uint64_t GetSize() const { return m_ullSize; }
    const std::string& GetTag() const { return m_strTag; }  // "": not known

    // An answer with the rest of the beginning: FILE becomes FILE.part now, if it was the beginning.
    std::string Continue(std::string_view aTag);

    // Instead of a part that is there.
    std::string Begin(std::string_view aTag) override;
    std::string Write(std::string_view aBytes) override;
    std::string Publish() override;

private:
    std::string OpenPart();
    std::string Lock() const;
    std::string WriteTag(std::string_view aTag) const;

    const std::string m_strPath;
    const std::string m_strPart;
    const std::string m_strTagPath;
    FileHandle m_Part;
    bool m_bPartThere = false;  // of the beginning: it is FILE.part
    uint64_t m_ullSize = 0;     // of the beginning
    std::string m_strTag;       // of the beginning
};

}  // namespace tool
