#include "talvo/proxy/socks_dialog.h"

#include <algorithm>

namespace talvo {

void CSocksDialog::Expect_i(char aVersion, size_t aLength) {
    m_cVersion = aVersion;
    m_stWanted = aLength;
    m_strReply.clear();
}

IProxyDialog::EStep CSocksDialog::Take(std::string_view aIn, size_t& aTaken, CCmString& aOut) {
    aTaken = 0;
    while (aTaken < aIn.size()) {
        const size_t stPiece = std::min(m_stWanted - m_strReply.size(), aIn.size() - aTaken);
        m_strReply.append(aIn.substr(aTaken, stPiece));
        aTaken += stPiece;
        if (m_strReply.front() != m_cVersion)
            return Malformed_i("not a reply of this version of SOCKS");
        if (m_strReply.size() < m_stWanted)
            return TALK;
        const CCmString strReply = m_strReply;
        const EStep step = Judge_i(strReply, aOut);
        if (step != TALK)
            return step;
    }
    return TALK;
}

}  // namespace talvo
