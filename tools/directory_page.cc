#include "tools/directory_page.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "tools/request_path.h"
#include "tools/text.h"

namespace tool {

namespace {

// On a phone's width the time of day is left out, and long names wrap.
constexpr const char* STYLE = R"(
:root{color-scheme:light dark}
body{font:1rem/1.4 system-ui,sans-serif;margin:0 auto;max-width:60rem;padding:1rem}
h1{font-size:1.3rem;overflow-wrap:anywhere}
table{border-collapse:collapse;width:100%}
th,td{padding:.45rem .6rem;text-align:right;vertical-align:top;white-space:nowrap;font-variant-numeric:tabular-nums}
th:first-child,td:first-child{text-align:left;width:100%;white-space:normal;overflow-wrap:anywhere;padding-left:0}
th:last-child,td:last-child{padding-right:0}
tr{border-bottom:1px solid #8884}
tbody tr:hover{background:#8882}
a{text-decoration:none}
a:hover,a:focus{text-decoration:underline}
td a{display:block}
p,td{color:GrayText}
@media(max-width:40rem){.t{display:none}body{padding:.7rem}td{padding-block:.7rem}}
)";

struct Column {
    PageOrder::EKey m_Key;
    const char* m_pName;
    const char* m_pTitle;
};

constexpr Column COLUMNS[] = {
    {PageOrder::NAME, "name", "Name"}, {PageOrder::SIZE, "size", "Size"}, {PageOrder::DATE, "date", "Changed"}};

// Less than, equal to or greater than 0. Numbers inside names count as numbers: "file2" is before "file10".
int Compare(const DirectoryEntry& aLeft, const DirectoryEntry& aRight, PageOrder::EKey aKey) {
    if (aKey == PageOrder::SIZE && aLeft.m_ullSize != aRight.m_ullSize)
        return aLeft.m_ullSize < aRight.m_ullSize ? -1 : 1;
    if (aKey == PageOrder::DATE && aLeft.m_llModified != aRight.m_llModified)
        return aLeft.m_llModified < aRight.m_llModified ? -1 : 1;
    return strverscmp(aLeft.m_strName.c_str(), aRight.m_strName.c_str());
}

void Sort(std::vector<DirectoryEntry>& aEntries, PageOrder aOrder) {
    std::sort(aEntries.begin(), aEntries.end(), [&](const DirectoryEntry& aLeft, const DirectoryEntry& aRight) {
        if (aLeft.m_bDirectory != aRight.m_bDirectory)
            return aLeft.m_bDirectory;
        const int nOrder = Compare(aLeft, aRight, aOrder.m_Key);
        return aOrder.m_bDescending ? nOrder > 0 : nOrder < 0;
    });
}

// A link to the order of that column, or to the opposite of the present order.
std::string MakeHeading(const Column& aColumn, PageOrder aOrder) {
    const bool bPresent = aColumn.m_Key == aOrder.m_Key;
    const bool bDescending = bPresent && !aOrder.m_bDescending;
    std::string strHeading = "<th scope=\"col\"";
    if (bPresent)
        strHeading += aOrder.m_bDescending ? " aria-sort=\"descending\"" : " aria-sort=\"ascending\"";
    strHeading.append("><a href=\"?sort=").append(bDescending ? "-" : "").append(aColumn.m_pName).append("\">");
    strHeading += aColumn.m_pTitle;
    if (bPresent)
        strHeading += aOrder.m_bDescending ? " \u2193" : " \u2191";
    return strHeading + "</a></th>";
}

// "2026-11-23 05:10" in UTC, with the time of day apart.
std::string MakeDate(int64_t aModified) {
    const time_t nTime = aModified;
    tm parts{};
    if (!gmtime_r(&nTime, &parts))
        return "";
    char szDate[128];
    szDate[std::strftime(szDate, sizeof szDate,
                         "<time datetime=\"%Y-%m-%dT%H:%M:%SZ\">%Y-%m-%d<span class=\"t\"> %H:%M</span></time>", &parts)] = 0;
    return szDate;
}

std::string MakeRow(const DirectoryEntry& aEntry) {
    const std::string strName = aEntry.m_bDirectory ? aEntry.m_strName + "/" : aEntry.m_strName;
    // "./" keeps a name with a colon from being read as a scheme.
    std::string strRow = "<tr><td><a href=\"./" + EncodePath(strName) + "\">" + EscapeHtml(Printable(strName)) + "</a></td><td";
    if (!aEntry.m_bDirectory)
        strRow += " title=\"" + std::to_string(aEntry.m_ullSize) + " bytes\">" + FormatBytes(aEntry.m_ullSize);
    else
        strRow += ">";
    return strRow + "</td><td>" + MakeDate(aEntry.m_llModified) + "</td></tr>\n";
}

std::string Count(size_t aNumber, const char* aOne, const char* aMany) {
    return std::to_string(aNumber) + " " + (aNumber == 1 ? aOne : aMany);
}

std::string MakeSummary(const DirectoryListing& aListing) {
    size_t stFolders = 0;
    uint64_t ullBytes = 0;
    for (const DirectoryEntry& entry : aListing.m_Entries) {
        stFolders += entry.m_bDirectory;
        ullBytes += entry.m_bDirectory ? 0 : entry.m_ullSize;
    }
    const size_t stFiles = aListing.m_Entries.size() - stFolders;
    std::string strText =
        Count(stFolders, "folder", "folders") + ", " + Count(stFiles, "file", "files") + ", " + FormatBytes(ullBytes);
    if (aListing.m_bIncomplete)
        strText += "; entries beyond " + std::to_string(DirectoryListing::MAX_ENTRIES) + " are not shown";
    return "<p>" + strText + ". Times are UTC.</p>\n";
}

}  // namespace

PageOrder ParsePageOrder(std::string_view aQuery) {
    constexpr std::string_view SORT = "sort=";
    if (!aQuery.starts_with(SORT))
        return {};
    aQuery.remove_prefix(SORT.size());
    const bool bDescending = aQuery.starts_with('-');
    aQuery.remove_prefix(bDescending);
    for (const Column& column : COLUMNS) {
        if (aQuery == column.m_pName)
            return {column.m_Key, bDescending};
    }
    return {};
}

std::string MakeDirectoryPage(const std::string& aPath, DirectoryListing& aListing, PageOrder aOrder) {
    Sort(aListing.m_Entries, aOrder);
    const std::string strTitle = EscapeHtml(Printable(aPath.empty() ? "/" : "/" + aPath + "/"));
    std::string strPage =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"><title>" +
        strTitle + "</title><style>" + STYLE + "</style></head>\n<body><h1>" + strTitle + "</h1>\n<table><thead><tr>";
    for (const Column& column : COLUMNS)
        strPage += MakeHeading(column, aOrder);
    strPage += "</tr></thead><tbody>\n";
    if (aListing.m_bHasParent)
        strPage += "<tr><td><a href=\"../\">../</a></td><td></td><td></td></tr>\n";
    for (const DirectoryEntry& entry : aListing.m_Entries)
        strPage += MakeRow(entry);
    return strPage + "</tbody></table>\n" + MakeSummary(aListing) + "</body></html>\n";
}

}  // namespace tool
