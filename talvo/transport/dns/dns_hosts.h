// The hosts file: names that need no server.
#pragma once

#include <string_view>
#include <unordered_map>
#include <vector>

#include "talvo/base/ip_bytes.h"
#include "talvo/base/result.h"

namespace talvo {

// Lines of an address and its names; '#' begins a comment, and lines that begin otherwise are skipped. A name on several lines
// has all their addresses. Names are compared case-insensitively and without a dot at the end.
class TALVO_API CDnsHosts {
public:
    static constexpr size_t MAX_FILE_LENGTH = 1 << 20;  // bytes

    // Replaces the names by those of a file. CM_OK. CM_ERROR_NOT_FOUND: it cannot be read, is not a regular file or is too
    // long; there are no names then. CM_ERROR_OUT_OF_MEMORY: some may be missing.
    CmResult Load(const CCmString& aPath);
    void Parse(std::string_view aText);

    // Null: none. "localhost" and names below it are ::1 and 127.0.0.1 unless the file has them. aName is in lower case.
    const std::vector<CIpBytes>* Find(std::string_view aName) const;
    // Those of "localhost" and the names below it, whatever the file has. Null: another name.
    static const std::vector<CIpBytes>* FindBuiltIn(std::string_view aName);

private:
    void ParseLine_i(std::string_view aLine);

    std::unordered_map<CCmString, std::vector<CIpBytes>> m_Names;
};

}  // namespace talvo
