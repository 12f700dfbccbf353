// The choices of the user of `talvo serve`.
#pragma once

#include <string>

namespace tool {

struct ServeOptions {
    std::string m_strIndex = "index.html";  // the file that is sent for a directory; "": always its page
    std::string m_strOrigin;                // pages of this origin may use the answers, "*": of any; "": of none
    std::string m_strAccessLog;             // a file, or "-" for stdout; "": none
    std::string m_strAccessLogFormat;       // "common", "json", or "": as the output of the program
};

}  // namespace tool
