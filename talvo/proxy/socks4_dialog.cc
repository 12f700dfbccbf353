#include "talvo/proxy/socks4_dialog.h"

#include <cstdio>

namespace talvo {

namespace {

constexpr char REPLY_VERSION = 0;
constexpr size_t REPLY = 8;  // version, code, port and address
constexpr char GRANTED = 0x5A;
constexpr char NO_ROUTE = 0x5B;  // or rejected
constexpr char LAST_CODE = 0x5D;

}  // namespace

// A name stands behind the user, and an impossible address, 0.0.0.1, announces it.
IProxyDialog::EStep CSocks4Dialog::Begin(CCmString& aOut) {
    const BOOL bName = !m_Peer.m_strName.empty();
    const char head[] = {4, 1, static_cast<char>(m_Peer.m_wPort >> 8), static_cast<char>(m_Peer.m_wPort & 0xFF)};
    aOut.append(head, sizeof head);
    if (bName)
        aOut.append("\0\0\0\1", 4);
    else
        aOut.append(reinterpret_cast<const char*>(m_Peer.m_Ip.m_Bytes), 4);
    aOut.append(m_strUser.substr(0, m_strUser.find('\0'))).push_back('\0');
    if (bName)
        aOut.append(m_Peer.m_strName).push_back('\0');
    Expect_i(REPLY_VERSION, REPLY);
    return TALK;
}

IProxyDialog::EStep CSocks4Dialog::Judge_i(std::string_view aReply, CCmString&) {
    const char code = aReply[1];
    if (code == GRANTED)
        return OPEN;
    char text[64];
    std::snprintf(text, sizeof text, "SOCKS reply %02x", static_cast<unsigned char>(code));
    if (code < NO_ROUTE || code > LAST_CODE)
        return Malformed_i(text);
    return Refused_i(code == NO_ROUTE ? CM_ERROR_NETWORK_CONNECT_ERROR : CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, text);
}

}  // namespace talvo
