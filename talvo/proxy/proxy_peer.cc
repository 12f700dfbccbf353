#include "talvo/proxy/proxy_peer.h"

#include "talvo/base/ascii.h"

namespace talvo {

BOOL CProxyPeer::Make(const CCmInetAddr& aAddr, CProxyPeer& aPeer) {
    aPeer.m_wPort = aAddr.GetPort();
    aPeer.m_strName = aAddr.IsResolved() ? CCmString(aAddr.GetGivenName()) : aAddr.GetHostName();
    if (aPeer.m_strName.empty()) {
        aPeer.m_Ip = aAddr.GetIpBytes();
        aPeer.m_Ip.m_dwScope = 0;
        return aPeer.m_Ip.m_byFamily != 0;
    }
    const BOOL bBlank = aPeer.m_strName.find(' ') != CCmString::npos;
    return aPeer.m_strName.size() <= LONGEST_NAME && !bBlank && !has_control(aPeer.m_strName);
}

CCmString CProxyPeer::GetTarget() const {
    CCmString strHost = m_strName.empty() ? m_Ip.GetText() : m_strName;
    if (strHost.find(':') != CCmString::npos)
        strHost = "[" + strHost + "]";
    return strHost + ":" + std::to_string(m_wPort);
}

}  // namespace talvo
