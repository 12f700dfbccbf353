#include "talvo/transport/tls/server_name.h"

namespace talvo {

namespace {

constexpr size_t LONGEST = 255;

CCmString AsGiven(const CCmString& aName, const CCmInetAddr& aAddr) {
    if (!aName.empty())
        return aName;
    const char* pGiven = aAddr.GetGivenName();
    return *pGiven ? CCmString(pGiven) : aAddr.GetIpBytes().GetText();
}

}  // namespace

BOOL IsServerName(const CCmString& aName) {
    return aName.size() <= LONGEST && !aName.starts_with('.') && aName.find_first_of(CCmString("\0*", 2)) == CCmString::npos;
}

CCmString ServerNameOf(const CCmString& aName, const CCmInetAddr& aAddr) {
    CCmString strName = AsGiven(aName, aAddr);
    if (CIpBytes ip; CIpBytes::Parse(strName, ip)) {
        ip.m_dwScope = 0;
        return ip.GetText();
    }
    if (strName.ends_with('.'))
        strName.pop_back();
    return IsServerName(strName) ? strName : CCmString();
}

}  // namespace talvo
