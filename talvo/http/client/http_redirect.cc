#include "talvo/http/client/http_redirect.h"

#include <algorithm>
#include <cstdlib>

#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_authority.h"
#include "talvo/http/message/http_text.h"
#include "talvo/http/message/http_url.h"

namespace talvo {

namespace {

BOOL IsAlpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// The length of the scheme at the start of the text, 0 for a relative reference.
size_t SchemeLength(std::string_view aText) {
    const size_t nColon = aText.find_first_of(":/?#");
    if (nColon == std::string_view::npos || aText[nColon] != ':' || !IsAlpha(aText.front()))
        return 0;
    const std::string_view scheme = aText.substr(0, nColon);
    const BOOL bClean = std::all_of(scheme.begin(), scheme.end(), [](char c) {
        return IsAlpha(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
    });
    return bClean ? nColon : 0;
}

// RFC 3986, section 5.2.4, for a path that begins with "/".
CCmString RemoveDotSegments(std::string_view aPath) {
    CCmString strOut;
    while (!aPath.empty()) {
        const size_t nNext = std::min(aPath.find('/', 1), aPath.size());
        const std::string_view segment = aPath.substr(0, nNext);  // with the slash before it
        const BOOL bLast = nNext == aPath.size();
        aPath.remove_prefix(nNext);
        if (segment == "/.." && !strOut.empty())
            strOut.resize(strOut.rfind('/'));
        if (segment != "/." && segment != "/..")
            strOut += segment;
        else if (bLast)
            strOut += '/';
    }
    return strOut;
}

// aPath with or without a query.
CCmString CleanPath(std::string_view aPath) {
    const size_t nQuery = std::min(aPath.find('?'), aPath.size());
    return RemoveDotSegments(aPath.substr(0, nQuery)) + CCmString(aPath.substr(nQuery));
}

// "", or a colon and, perhaps, the number of a port.
BOOL IsPort(std::string_view aText) {
    const CCmString strPort(aText.substr(std::min<size_t>(1, aText.size())));
    const BOOL bDigits = strPort.size() <= 5 && strPort.find_first_not_of("0123456789") == CCmString::npos;
    return bDigits && std::atoi(strPort.c_str()) <= 65535;
}

// A host and, perhaps, a valid port. Refuses texts that the URL class would interpret differently.
BOOL IsPlainAuthority(std::string_view aText) {
    if (const std::optional<CHttpIpLiteral> literal = parse_ip_literal(aText))
        return IsPort(literal->m_Port);
    const size_t nColon = std::min(aText.find(':'), aText.size());
    return nColon > 0 && aText.find_first_of("@[]%") == std::string_view::npos && IsPort(aText.substr(nColon));
}

// The field Host is without the zone of the base, so the server cannot repeat it: the base's own address keeps its zone.
CCmString KeepZone(const CCmHttpUrl& aBase, std::string_view aAuthority) {
    const std::optional<CHttpIpLiteral> literal = parse_ip_literal(aAuthority);
    const CCmString& strBase = aBase.GetHostName();
    if (!literal || strBase.substr(0, strBase.find('%')) != literal->GetHost())
        return CCmString(aAuthority);
    return bracket_host(strBase) + CCmString(literal->m_Port);
}

BOOL IsHttpScheme(std::string_view aScheme) { return equal_no_case(aScheme, "http") || equal_no_case(aScheme, "https"); }

CCmString JoinUrl(const CCmHttpUrl& aBase, std::string_view aScheme, std::string_view aRest) {
    const size_t nEnd = std::min(aRest.find_first_of("/?"), aRest.size());
    const CCmString strAuthority = KeepZone(aBase, aRest.substr(0, nEnd));
    if (!IsHttpScheme(aScheme) || !IsPlainAuthority(strAuthority))
        return {};
    CCmString strPath(aRest.substr(nEnd));
    if (!strPath.starts_with('/'))
        strPath.insert(0, 1, '/');
    return CCmString(aScheme) + "://" + strAuthority + CleanPath(strPath);
}

// Merges a path that is neither empty nor absolute, or a query alone, with that of the base.
CCmString MergePath(std::string_view aBasePath, std::string_view aReference) {
    const std::string_view basePath = aBasePath.substr(0, std::min(aBasePath.find_first_of("?#"), aBasePath.size()));
    if (aReference.empty())
        return CCmString(aBasePath.substr(0, aBasePath.find('#')));
    if (aReference.front() == '?')
        return CCmString(basePath) + CCmString(aReference);
    return CCmString(basePath.substr(0, basePath.rfind('/') + 1)) + CCmString(aReference);
}

}  // namespace

BOOL IsHttpRedirect(long aStatus) {
    return aStatus == 301 || aStatus == 302 || aStatus == 303 || aStatus == 307 || aStatus == 308;
}

BOOL DoesHttpRedirectBecomeGet(long aStatus, const CCmHttpAtom& aMethod) {
    if (aStatus == 303)
        return aMethod != CCmHttpAtomList::Head && aMethod != CCmHttpAtomList::Get;
    return (aStatus == 301 || aStatus == 302) && aMethod == CCmHttpAtomList::Post;
}

CCmString ResolveHttpLocation(const CCmHttpUrl& aBase, std::string_view aLocation) {
    const CCmString strLocation = EncodeForHttpUrl(aLocation.substr(0, aLocation.find('#')));
    const std::string_view reference = strLocation;
    if (const size_t nScheme = SchemeLength(reference)) {
        const std::string_view rest = reference.substr(nScheme + 1);
        return rest.starts_with("//") ? JoinUrl(aBase, reference.substr(0, nScheme), rest.substr(2)) : CCmString();
    }
    if (reference.starts_with("//"))
        return JoinUrl(aBase, aBase.GetScheme(), reference.substr(2));
    const CCmString strPath =
        reference.starts_with("/") ? strLocation : MergePath(EncodeForHttpUrl(aBase.GetPath()), reference);
    return JoinUrl(aBase, aBase.GetScheme(), aBase.GetNameAndPort(FALSE) + strPath);
}

BOOL IsSameHttpOrigin(const CCmHttpUrl& a, const CCmHttpUrl& b) {
    const BOOL bSameHost = is_ipv6_host(a.GetHostName()) ? a.GetHostName() == b.GetHostName()  // the case of a zone matters
                                                         : equal_no_case(a.GetHostName(), b.GetHostName());
    return bSameHost && a.GetScheme() == b.GetScheme() && a.GetPort() == b.GetPort();
}

CCmString EncodeForHttpUrl(std::string_view aText) {
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    CCmString strEncoded;
    for (const char c : aText) {
        const auto nByte = static_cast<unsigned char>(c);
        if (nByte > ' ' && nByte < 0x7f && c != '"' && c != '\\')
            strEncoded += c;
        else
            strEncoded.append({'%', DIGITS[nByte >> 4], DIGITS[nByte & 15]});
    }
    return strEncoded;
}

}  // namespace talvo
