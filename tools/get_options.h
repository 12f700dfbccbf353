// The choices of the user of `talvo get`.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/output.h"

namespace tool {

// One URL and the place of its content.
struct GetJob {
    std::string m_strUrl;
    std::string m_strName;  // of the file as shown; "": stdout
    OutputTarget m_Target;
};

struct GetOptions {
    std::vector<std::string> m_vecUrls;
    std::string m_strOutput;  // --out as given
    bool m_bRemoteName = false;
    std::string m_strDirectory;  // --output-dir
    bool m_bContinue = false;
    std::string m_strMethod;                // "": GET, or POST with data
    std::string m_strData;                  // --data as given
    bool m_bHasData = false;                // --data was given
    std::vector<std::string> m_vecHeaders;  // as given
    std::string m_strUser;                  // "": no credentials
    std::string m_strPasswordFile;

    // From these:
    std::vector<GetJob> m_vecJobs;
    std::string m_strBody;
    std::vector<std::pair<std::string, std::string>> m_vecFields;  // names and values
    std::string m_strPassword;
};

}  // namespace tool
