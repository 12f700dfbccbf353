// Lists of the hosts that are reached without a proxy.
#pragma once

#include <vector>

#include "talvo/proxy/discovery/proxy_origin.h"

namespace talvo {

// The two dialects of such lists.
enum class EBypassDialect {
    LIST,    // no_proxy, KDE, GNOME: a name matches itself and all names below it, with or without "." or "*." before it
    PATTERN  // the application's and .ins files: "*" anywhere, ".name" matches the names below it only, "scheme://" before
};

// Both dialects have "*" for every host, ":port" behind an entry (IPv6 then in brackets), addresses and networks "a.b.c.d/n",
// which match literal addresses only, and "<local>": a host without a dot that is no IPv6 address. In patterns "<-loopback>"
// removes the rule that loopback is direct. Separators are comma, semicolon and blank. A plain value.
class TALVO_API CBypassRules {
public:
    static constexpr size_t MOST_ENTRIES = 1024;  // further ones are skipped
    static constexpr size_t LONGEST_ENTRY = 512;  // longer ones are invalid

    // Appends the entries of aText. Invalid ones are skipped, with one trace line for all. Throws std::bad_alloc.
    void Add(std::string_view aText, EBypassDialect aDialect);

    // TRUE: an entry matches; a later "<-loopback>" takes a loopback host back.
    BOOL Matches(const CProxyOrigin& aOrigin) const;
    // TRUE: there is a "<-loopback>".
    BOOL AllowsLoopback() const { return m_bAllowsLoopback; }
    BOOL IsEmpty() const { return m_Entries.empty(); }
    size_t GetCount() const { return m_Entries.size(); }

private:
    enum EKind { NAME_AND_BELOW, PATTERN, NETWORK, LOCAL, NOT_LOOPBACK };
    struct CEntry {
        EKind m_Kind = PATTERN;
        CCmString m_strScheme;  // "": any
        CCmString m_strName;    // in lower case
        CIpBytes m_Network;
        DWORD m_dwBits = 0;
        WORD m_wPort = 0;  // 0: any
    };

    static BOOL Read_i(std::string_view aText, EBypassDialect aDialect, CEntry& aEntry);
    static BOOL ReadAddress_i(std::string_view aText, CEntry& aEntry);
    static BOOL ReadName_i(std::string_view aText, EBypassDialect aDialect, CEntry& aEntry);
    static BOOL Matches_i(const CEntry& aEntry, const CProxyOrigin& aOrigin);

    std::vector<CEntry> m_Entries;
    BOOL m_bAllowsLoopback = FALSE;
};

}  // namespace talvo
