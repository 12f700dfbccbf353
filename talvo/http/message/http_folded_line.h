// A header field that may continue in later lines.
#pragma once

#include <string_view>

#include "talvo/base/types.h"
#include "talvo/http/message/http_text.h"

namespace talvo {

// Joins obsolete line folding (RFC 9112, section 5.2): each fold becomes one space. Holds one line and reuses its memory.
class CHttpFoldedLine {
public:
    CmBool IsEmpty() const { return m_strLine.empty(); }
    const CCmString& Get() const { return m_strLine; }

    void Hold(std::string_view aLine) { m_strLine.assign(aLine); }

    // TRUE: aLine begins with a blank and was appended to the held line. FALSE, and nothing changes: it begins a new line, or
    // there is no held line.
    CmBool Continue(std::string_view aLine) {
        if (m_strLine.empty() || aLine.empty() || (aLine.front() != ' ' && aLine.front() != '\t'))
            return CM_FALSE;
        m_strLine.resize(m_strLine.find_last_not_of(" \t") + 1);
        m_strLine.append(" ").append(trim_blanks(aLine));
        return CM_TRUE;
    }

private:
    CCmString m_strLine;
};

}  // namespace talvo
