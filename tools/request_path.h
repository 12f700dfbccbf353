// The path of a request below a directory.
#pragma once

#include <string>
#include <string_view>

namespace tool {

struct RequestPath {
    std::string m_strPath;      // decoded, relative, without empty parts: "a/b c.txt"; "" is the directory itself
    bool m_bDirectory = false;  // it ends with a slash
    std::string m_strQuery;     // behind "?", not decoded
};

// Parses a request's target: "/a/b%20c.txt?x=y", or the same behind "http://host". A fragment is ignored. aPath (out).
// false: the target is not a path, a percent sign is not followed by two hexadecimal digits, or a part would be "." or "..", or
// contain a slash or a NUL.
bool ParseRequestPath(std::string_view aTarget, RequestPath& aPath);

// aText with every character but letters, digits and "-._~/" as "%XX".
std::string EncodePath(std::string_view aText);

// aText escaped for HTML, attributes included.
std::string EscapeHtml(std::string_view aText);

}  // namespace tool
