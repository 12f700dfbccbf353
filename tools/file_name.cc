#include "tools/file_name.h"

#include <sys/random.h>

#include <cinttypes>
#include <cstdio>

#include "tools/sha256.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr std::string_view TEMPORARY_BEGIN = ".talvo-";
constexpr std::string_view TEMPORARY_END = ".part";
constexpr size_t TEMPORARY_DIGITS = 16;

}  // namespace

std::string CheckFileName(std::string_view aName) {
    if (aName.empty())
        return "the name is empty";
    if (aName.size() > MAX_FILE_NAME)
        return "the name is longer than 255 bytes";
    if (aName == "." || aName == ".." || aName.find('/') != std::string_view::npos)
        return "the name leads out of the directory";
    if (HasControl(aName))
        return "the name has a control character";
    // Otherwise a peer could overwrite a file of another that is being received.
    if (aName.starts_with(TEMPORARY_BEGIN) && aName.ends_with(TEMPORARY_END))
        return "the name is reserved for temporary files";
    return "";
}

std::string_view GetBaseName(std::string_view aPath) { return aPath.substr(aPath.rfind('/') + 1); }

std::string MakeTemporaryName() {
    uint64_t number = 0;
    // So few bytes arrive whole, or not at all on a system without the call. Then the creation of the file tries the next free
    // name.
    if (getrandom(&number, sizeof(number), 0) != sizeof(number)) {
        static uint64_t s_ullNext = 0;
        number = s_ullNext++;
    }
    char szNumber[17];
    std::snprintf(szNumber, sizeof(szNumber), "%016" PRIx64, number);
    return std::string(TEMPORARY_BEGIN).append(szNumber).append(TEMPORARY_END);
}

std::string MakePartName(std::string_view aName) {
    Sha256 hash;
    hash.Update(aName);
    const std::string strDigits = ToHex(hash.GetSoFar()).substr(0, TEMPORARY_DIGITS);
    return strDigits.empty() ? MakeTemporaryName() : std::string(TEMPORARY_BEGIN).append(strDigits).append(TEMPORARY_END);
}

// No file has this name.
std::string MakeMarkName() { return MakePartName("."); }

bool IsTemporaryName(std::string_view aName) {
    if (aName.size() != TEMPORARY_BEGIN.size() + TEMPORARY_DIGITS + TEMPORARY_END.size() ||
        !aName.starts_with(TEMPORARY_BEGIN) || !aName.ends_with(TEMPORARY_END))
        return false;
    const std::string_view digits = aName.substr(TEMPORARY_BEGIN.size(), TEMPORARY_DIGITS);
    return digits.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

}  // namespace tool
