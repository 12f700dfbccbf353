#include "talvo/proxy/socks5_dialog.h"

#include <iterator>

namespace talvo {

namespace {

constexpr char VERSION = 5;
constexpr char LOGIN_VERSION = 1;  // of the exchange of user and password
constexpr char WITHOUT_LOGIN = 0;
constexpr char WITH_PASSWORD = 2;
constexpr char NO_METHOD = '\xFF';
constexpr char CONNECT = 1;
constexpr char IPV4 = 1;
constexpr char NAME = 3;
constexpr char IPV6 = 4;
constexpr size_t REPLY_HEAD = 5;  // version, code, reserved, type of the bound address, and its first byte

struct CReply {
    const char* m_pText;
    BOOL m_bOwn;  // the proxy itself refuses
};
constexpr CReply REPLIES[] = {{"", FALSE},
                              {"SOCKS reply 01: general failure", FALSE},
                              {"SOCKS reply 02: not allowed", TRUE},
                              {"SOCKS reply 03: network unreachable", FALSE},
                              {"SOCKS reply 04: host unreachable", FALSE},
                              {"SOCKS reply 05: connection refused", FALSE},
                              {"SOCKS reply 06: TTL expired", FALSE},
                              {"SOCKS reply 07: command not supported", TRUE},
                              {"SOCKS reply 08: address type not supported", TRUE}};

BOOL IsField(std::string_view aText) { return !aText.empty() && aText.size() <= 255; }

void AppendField(std::string_view aText, CCmString& aOut) {
    aOut.push_back(static_cast<char>(aText.size()));
    aOut.append(aText);
}

}  // namespace

IProxyDialog::EStep CSocks5Dialog::Begin(CCmString& aOut) {
    m_bOffersPassword = m_Login.MayHave();
    const char methods[] = {VERSION, static_cast<char>(m_bOffersPassword ? 2 : 1), WITHOUT_LOGIN, WITH_PASSWORD};
    aOut.append(methods, m_bOffersPassword ? 4 : 3);
    Expect_i(VERSION, 2);
    return TALK;
}

IProxyDialog::EStep CSocks5Dialog::Judge_i(std::string_view aReply, CCmString& aOut) {
    switch (m_Stage) {
    case METHOD:
        return JudgeMethod_i(aReply[1], aOut);
    case PASSWORD:
        return JudgeLogin_i(aReply[1], aOut);
    case ASKED:
        break;
    }
    return JudgeReply_i(aReply);
}

IProxyDialog::EStep CSocks5Dialog::JudgeMethod_i(char aMethod, CCmString& aOut) {
    if (aMethod == WITHOUT_LOGIN)
        return Ask_i(aOut);
    if (aMethod == WITH_PASSWORD && m_bOffersPassword)
        return LogIn_i(aOut);
    return Malformed_i(aMethod == NO_METHOD ? "SOCKS method ff: a login is required" : "a SOCKS method that was not offered");
}

IProxyDialog::EStep CSocks5Dialog::LogIn_i(CCmString& aOut) {
    const CmResult rv = m_Login.Choose();
    if (rv == CM_ERROR_WOULD_BLOCK)
        return AGAIN;
    if (rv != CM_OK)
        return Malformed_i("there are no credentials for the SOCKS proxy");
    if (!IsField(m_Login.GetUser()) || !IsField(m_Login.GetPassword()))
        return Malformed_i("SOCKS has no user or password of this length");
    aOut.push_back(LOGIN_VERSION);
    AppendField(m_Login.GetUser(), aOut);
    AppendField(m_Login.GetPassword(), aOut);
    Expect_i(LOGIN_VERSION, 2);
    m_Stage = PASSWORD;
    return TALK;
}

// After a refusal the server closes.
IProxyDialog::EStep CSocks5Dialog::JudgeLogin_i(char aStatus, CCmString& aOut) {
    if (aStatus == 0)
        return Ask_i(aOut);
    m_Login.OnRefused();
    const CmResult rv = m_Login.Choose();
    return rv == CM_OK || rv == CM_ERROR_WOULD_BLOCK ? AGAIN : Malformed_i("the SOCKS proxy refuses the credentials");
}

IProxyDialog::EStep CSocks5Dialog::Ask_i(CCmString& aOut) {
    const char head[] = {VERSION, CONNECT, 0};
    aOut.append(head, sizeof head);
    if (!m_Peer.m_strName.empty()) {
        aOut.push_back(NAME);
        AppendField(m_Peer.m_strName, aOut);
    } else {
        aOut.push_back(m_Peer.IsIpv6() ? IPV6 : IPV4);
        aOut.append(reinterpret_cast<const char*>(m_Peer.m_Ip.m_Bytes), m_Peer.IsIpv6() ? 16 : 4);
    }
    aOut.push_back(static_cast<char>(m_Peer.m_wPort >> 8));
    aOut.push_back(static_cast<char>(m_Peer.m_wPort & 0xFF));
    Expect_i(VERSION, 2);
    m_Stage = ASKED;
    return TALK;
}

// The code alone decides a refusal: the rest of the reply need not come.
IProxyDialog::EStep CSocks5Dialog::JudgeReply_i(std::string_view aReply) {
    const auto code = static_cast<unsigned char>(aReply[1]);
    if (code >= std::size(REPLIES))
        return Malformed_i("an unknown SOCKS reply");
    if (code != 0) {
        const CReply& reply = REPLIES[code];
        return Refused_i(reply.m_bOwn ? CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE : CM_ERROR_NETWORK_CONNECT_ERROR,
                         reply.m_pText);
    }
    if (aReply.size() < REPLY_HEAD) {
        ExpectMore_i(REPLY_HEAD - aReply.size());
        return TALK;
    }
    if (aReply.size() > REPLY_HEAD)
        return OPEN;
    switch (aReply[3]) {  // the rest of the address, and a port
    case IPV4:
        ExpectMore_i(3 + 2);
        return TALK;
    case IPV6:
        ExpectMore_i(15 + 2);
        return TALK;
    case NAME:
        ExpectMore_i(static_cast<unsigned char>(aReply[4]) + size_t{2});
        return TALK;
    default:
        return Malformed_i("a SOCKS reply with an unknown type of address");
    }
}

}  // namespace talvo
