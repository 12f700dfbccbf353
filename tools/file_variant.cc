#include "tools/file_variant.h"

#include <utility>

#include "tools/content_coding.h"
#include "tools/content_type.h"

namespace tool {

namespace {

using Atoms = CCmHttpAtomList;

constexpr off_t SHORTEST_TEXT = 512;

bool IsOlder(const timespec& aLeft, const timespec& aRight) {
    return aLeft.tv_sec != aRight.tv_sec ? aLeft.tv_sec < aRight.tv_sec : aLeft.tv_nsec < aRight.tv_nsec;
}

bool OpenStored(const ServedDirectory& aDirectory, const std::string& aPath, const struct stat& aPlain, FileVariant& aStored) {
    aStored.m_File = aDirectory.OpenAt(aPath + ".gz");
    return aStored.m_File && fstat(aStored.m_File.Get(), &aStored.m_Status) == 0 && S_ISREG(aStored.m_Status.st_mode) &&
           !IsOlder(aStored.m_Status.st_mtim, aPlain.st_mtim);
}

}  // namespace

FileVariant ChooseVariant(ServedAnswer& aAnswer, const ServedDirectory& aDirectory, const std::string& aPath, FileHandle aFile,
                          const struct stat& aStatus) {
    FileVariant plain{FileVariant::PLAIN, std::move(aFile), aStatus};
    FileVariant stored{FileVariant::STORED, FileHandle(), {}};
    const bool bStored = OpenStored(aDirectory, aPath, aStatus, stored);
    const bool bText = IsText(GetContentType(aPath)) && aStatus.st_size >= SHORTEST_TEXT;
    if (!bStored && !bText)
        return plain;
    aAnswer.AddVary("Accept-Encoding");
    if (!AcceptsGzip(aAnswer.GetRequestHeader(Atoms::Accept_Encoding)) || aAnswer.GetRequest().PeekHeader(Atoms::Range))
        return plain;
    if (bStored)
        return stored;
    if (GzipSource::IsAvailable())
        plain.m_Form = FileVariant::COMPRESSED;
    return plain;
}

}  // namespace tool
