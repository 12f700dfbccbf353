#include "tools/file_version.h"

#include <cinttypes>
#include <cstdio>
#include <string_view>

namespace tool {

namespace {

using Atoms = CCmHttpAtomList;

// aWeakToo: a listed weak tag, with "W/" before it, counts as well.
bool IsListed(std::string_view aTags, std::string_view aTag, bool aWeakToo) {
    if (aTags == "*")
        return true;
    for (std::string_view element; cm_next_list_element(aTags, element);) {
        if (aWeakToo && element.starts_with("W/"))
            element.remove_prefix(2);
        if (element == aTag)
            return true;
    }
    return false;
}

}  // namespace

FileVersion::FileVersion(const struct stat& aStatus, bool aCompressed)
    : m_bWeak(aCompressed), m_llModified(aStatus.st_mtim.tv_sec) {
    char szTag[64];
    const uint64_t ullNanoseconds =
        static_cast<uint64_t>(aStatus.st_mtim.tv_sec) * 1000000000 + static_cast<uint64_t>(aStatus.st_mtim.tv_nsec);
    std::snprintf(szTag, sizeof szTag, "\"%" PRIx64 "-%" PRIx64 "%s\"", ullNanoseconds, static_cast<uint64_t>(aStatus.st_size),
                  aCompressed ? "-gz" : "");
    m_strTag = szTag;
}

long FileVersion::JudgeConditions(const CCmHttpRequestHead& aRequest) const {
    if (!IsMeant(aRequest))
        return 412;
    return IsNotModified(aRequest) ? 304 : 200;
}

// Tags take precedence over dates. A malformed date is ignored.
bool FileVersion::IsMeant(const CCmHttpRequestHead& aRequest) const {
    if (const CCmString* pTags = aRequest.FindHeader(Atoms::If_Match))
        return *pTags == "*" || (!m_bWeak && IsListed(*pTags, m_strTag, false));
    const CCmString* pDate = aRequest.FindHeader(Atoms::If_Unmodified_Since);
    int64_t llDate = 0;
    return !pDate || !cm_parse_http_date(*pDate, llDate) || m_llModified <= llDate;
}

bool FileVersion::IsNotModified(const CCmHttpRequestHead& aRequest) const {
    if (const CCmString* pTags = aRequest.FindHeader(Atoms::If_None_Match))
        return IsListed(*pTags, m_strTag, true);
    const CCmString* pDate = aRequest.FindHeader(Atoms::If_Modified_Since);
    int64_t llDate = 0;
    return pDate && cm_parse_http_date(*pDate, llDate) && m_llModified <= llDate;
}

bool FileVersion::IsRangeMeant(const CCmHttpRequestHead& aRequest) const {
    const CCmString* pIf = aRequest.FindHeader(Atoms::If_Range);
    if (!pIf || *pIf == m_strTag)
        return true;
    int64_t llDate = 0;
    return cm_parse_http_date(*pIf, llDate) && m_llModified == llDate;
}

}  // namespace tool
