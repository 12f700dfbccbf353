// The peer of a tunnel, as a proxy gets it.
#pragma once

#include "talvo/base/inet_addr.h"

namespace talvo {

struct TALVO_API CProxyPeer {
    static constexpr size_t LONGEST_NAME = 253;

    // The given name of aAddr, or else its address without a scope. FALSE: neither, or a name that must not be sent: it has a
    // control character or a blank, or more than LONGEST_NAME bytes. May throw std::bad_alloc.
    static BOOL Make(const CCmInetAddr& aAddr, CProxyPeer& aPeer);

    // "host:443" or "[::1]:443". May throw std::bad_alloc.
    CCmString GetTarget() const;
    BOOL IsIpv6() const { return m_strName.empty() && m_Ip.m_byFamily == 6; }

    CCmString m_strName;  // "": it is an address
    CIpBytes m_Ip;        // the address; none of a name
    WORD m_wPort = 0;
};

}  // namespace talvo
