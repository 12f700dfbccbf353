// The reason for which a setting of TLS is refused.
#pragma once

#include <string>

#include "talvo/base/result.h"

namespace talvo {

struct CSslProblem {
    // Of the last failed call of OpenSSL, whose queue of errors it empties. aFile: "" if the setting has none.
    static CSslProblem FromOpenSsl(const std::string& aFile = {});
    // CM_ERROR_NOT_FOUND with the text of errno.
    static CSslProblem FromErrno(const std::string& aFile);

    explicit operator bool() const { return m_Result != CM_OK; }

    CmResult m_Result = CM_OK;
    std::string m_strFile;
    std::string m_strWhy;  // without secrets
};

}  // namespace talvo
