// SOCKS 4 and 4a.
#pragma once

#include "talvo/proxy/proxy_peer.h"
#include "talvo/proxy/socks_dialog.h"

namespace talvo {

class TALVO_API CSocks4Dialog final : public CSocksDialog {
public:
    // aPeer: an IPv4 address, or for 4a also a name. aUser: the user id, perhaps "".
    CSocks4Dialog(CProxyPeer aPeer, std::string_view aUser) : m_Peer(std::move(aPeer)), m_strUser(aUser) {}

    EStep Begin(CCmString& aOut) override;
    BOOL HasAsked() const override { return TRUE; }

private:
    EStep Judge_i(std::string_view aReply, CCmString& aOut) override;

    const CProxyPeer m_Peer;
    const CCmString m_strUser;
};

}  // namespace talvo
