#include "tools/content_type.h"

#include <strings.h>

#include <algorithm>
#include <string>

namespace tool {

namespace {

struct ContentType {
    const char* m_pEnding;
    const char* m_pType;
};

constexpr ContentType TYPES[] = {
    {"avif", "image/avif"},
    {"bmp", "image/bmp"},
    {"css", "text/css; charset=utf-8"},
    {"csv", "text/csv; charset=utf-8"},
    {"gif", "image/gif"},
    {"gz", "application/gzip"},
    {"htm", "text/html; charset=utf-8"},
    {"html", "text/html; charset=utf-8"},
    {"ico", "image/x-icon"},
    {"jpeg", "image/jpeg"},
    {"jpg", "image/jpeg"},
    {"js", "text/javascript; charset=utf-8"},
    {"json", "application/json"},
    {"log", "text/plain; charset=utf-8"},
    {"md", "text/markdown; charset=utf-8"},
    {"mjs", "text/javascript; charset=utf-8"},
    {"mp3", "audio/mpeg"},
    {"mp4", "video/mp4"},
    {"ogg", "audio/ogg"},
    {"pac", "application/x-ns-proxy-autoconfig"},
    {"pdf", "application/pdf"},
    {"png", "image/png"},
    {"svg", "image/svg+xml"},
    {"tar", "application/x-tar"},
    {"txt", "text/plain; charset=utf-8"},
    {"wasm", "application/wasm"},
    {"wav", "audio/wav"},
    {"webm", "video/webm"},
    {"webp", "image/webp"},
    {"woff", "font/woff"},
    {"woff2", "font/woff2"},
    {"xml", "text/xml; charset=utf-8"},
    {"zip", "application/zip"},
};

}  // namespace

const char* GetContentType(std::string_view aName) {
    const size_t stDot = aName.rfind('.');
    const std::string strEnding(stDot == std::string_view::npos ? "" : aName.substr(stDot + 1));
    const auto* pFound = std::find_if(std::begin(TYPES), std::end(TYPES), [&](const ContentType& aType) {
        return strcasecmp(aType.m_pEnding, strEnding.c_str()) == 0;
    });
    return pFound == std::end(TYPES) ? "application/octet-stream" : pFound->m_pType;
}

bool IsText(std::string_view aType) {
    return aType.starts_with("text/") || aType == "application/json" || aType == "image/svg+xml";
}

}  // namespace tool
