// A file that is fetched, perhaps in several runs, and never mistaken for the whole before it is complete.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/file_handle.h"
#include "tools/output.h"

namespace tool {

// Written as FILE.part and renamed to FILE when it is complete; until then FILE does not change. The part of a broken transfer
// can be continued: FILE.part.tag stores the server's tag of this version of the file, its size or an empty line, and the hash
// of the URL, so that neither two versions nor two files are ever mixed. A part without a tag is not continued, because it may
// be another file's. FILE.part is locked while it is written, so that a second process refuses. Neither of the two is created
// or opened through a symbolic link.
class PartialFile : public Output {
public:
    // The suffixes of the files beside FILE.
    static constexpr std::string_view SUFFIX = ".part";
    static constexpr std::string_view LONGEST_SUFFIX = ".part.tag";

    explicit PartialFile(std::string aPath);

    // Looks for a FILE.part with a tag. An earlier attempt of the same object is over.
    std::string LookForBeginning() override;
    uint64_t GetSize() const override { return m_ullSize; }
    const FileEdition& GetEdition() const override { return m_Edition; }
    bool MayBegin() const override { return true; }

    std::string Continue() override;
    // Replaces an existing part.
    std::string Begin(const FileEdition& aEdition) override;
    std::string Write(std::string_view aBytes) override;
    std::string Publish() override;

private:
    std::string OpenPart();
    std::string Lock() const;
    std::string WriteEdition(const FileEdition& aEdition) const;

    const std::string m_strPath;
    const std::string m_strPart;
    const std::string m_strTagPath;
    FileHandle m_Part;
    uint64_t m_ullSize = 0;  // of the beginning
    FileEdition m_Edition;   // of the beginning
};

}  // namespace tool
