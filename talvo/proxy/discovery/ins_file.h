// The .ins files that configure proxies.
#pragma once

#include "talvo/proxy/discovery/proxy_settings.h"

namespace talvo {

// What an .ins file says about proxies. A plain value.
struct TALVO_API CInsFile {
    static constexpr size_t LONGEST = 65536;        // bytes
    static constexpr DWORD MOST_FILES = 3;          // from one to the next
    static constexpr DWORD LEAST_SECONDS = 5 * 60;  // until it is read again

    CProxySettings m_Settings;  // the script is the next file, which may be an .ins file again
    DWORD m_dwSeconds = 0;      // AutoConfigTime; 0: none

    // TRUE: the path of aUrl ends in ".ins", or aText begins with a section line.
    static BOOL IsOne(std::string_view aUrl, std::string_view aText);
    // FALSE: it is too long. Unknown keys and malformed lines are ignored. Throws std::bad_alloc.
    static BOOL Parse(std::string_view aText, CInsFile& aFile);
};

}  // namespace talvo
