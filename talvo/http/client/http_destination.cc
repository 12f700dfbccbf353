#include "talvo/http/client/http_destination.h"

#include <algorithm>

#include "talvo/http/message/http_authority.h"
#include "talvo/http/message/http_text.h"

namespace talvo {

// The parts that most connections lack are left out, so that the key is short. No text of a host or an address has a line feed.
CCmString CHttpDestination::MakeKey() const {
    CCmString strKey = m_strHost;
    if (!is_ipv6_host(strKey))  // it is in lower case, and the case of its zone matters
        std::transform(strKey.begin(), strKey.end(), strKey.begin(), lower_case);
    strKey += ":" + std::to_string(m_wPort);
    if (m_AddrConnectTo != CCmInetAddr::s_InetAddrAny)
        strKey += "\nat " + cm_address_text(m_AddrConnectTo);
    if (m_pContext)
        strKey += "\ntls " + std::to_string(reinterpret_cast<uintptr_t>(m_pContext.Get()));
    return strKey;
}

}  // namespace talvo
