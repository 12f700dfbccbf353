#include "talvo/proxy/connect_reply.h"

#include <algorithm>

namespace talvo {

namespace {

constexpr std::string_view BEGIN = "HTTP/";
constexpr size_t STATUS = 9;  // the place behind "HTTP/1.1 "

constexpr BOOL IsDigit(char aByte) { return aByte >= '0' && aByte <= '9'; }

}  // namespace

CConnectReply::EResult CConnectReply::Broken_i(const char* aFault) {
    m_pFault = aFault;
    return BROKEN;
}

CConnectReply::EResult CConnectReply::Take(std::string_view aIn, size_t& aTaken) {
    for (aTaken = 0; aTaken < aIn.size();) {
        if (m_strHead.size() == LONGEST)
            return Broken_i("the head of the reply is too long");
        const size_t stEnd = std::min(aIn.find('\n', aTaken), aIn.size() - 1) + 1;
        const size_t stPiece = std::min(stEnd - aTaken, LONGEST - m_strHead.size());
        m_strHead.append(aIn.substr(aTaken, stPiece));
        aTaken += stPiece;
        if (!std::string_view(m_strHead).starts_with(BEGIN.substr(0, m_strHead.size())))
            return Broken_i("not an HTTP reply");
        if (!m_strHead.ends_with('\n'))
            continue;
        const std::string_view line = std::string_view(m_strHead).substr(m_stLine);
        m_stLine = m_strHead.size();
        if (line == "\n" || line == "\r\n")
            return ParseStatus_i() ? COMPLETE : Broken_i("an HTTP reply without a status");
    }
    return MORE;
}

// "HTTP/1.x NNN" and a blank or the end of the line (RFC 9112, section 4).
BOOL CConnectReply::ParseStatus_i() {
    const std::string_view line = std::string_view(m_strHead).substr(0, m_strHead.find('\n'));
    if (!line.starts_with("HTTP/1.") || line.size() < STATUS + 3 || !IsDigit(line[7]) || line[8] != ' ')
        return FALSE;
    const std::string_view status = line.substr(STATUS, 3);
    if (!std::ranges::all_of(status, IsDigit) ||
        (line.size() > STATUS + 3 && line[STATUS + 3] != ' ' && line[STATUS + 3] != '\r'))
        return FALSE;
    m_nStatus = (status[0] - '0') * 100 + (status[1] - '0') * 10 + (status[2] - '0');
    return TRUE;
}

std::string_view CConnectReply::GetStatusText() const {
    const std::string_view line = std::string_view(m_strHead).substr(0, m_strHead.find_first_of("\r\n"));
    return line.substr(std::min(STATUS, line.size()));
}

}  // namespace talvo
