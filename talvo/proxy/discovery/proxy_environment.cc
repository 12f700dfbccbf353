#include "talvo/proxy/discovery/proxy_environment.h"

#include <sys/auxv.h>
#include <unistd.h>

#include <cstring>

#include "talvo/base/config_text.h"

namespace talvo {

namespace {

constexpr const char* SOURCE = "environment";

}  // namespace

std::shared_ptr<const CEnvironment> CEnvironment::Copy() {
    std::map<CCmString, CCmString> values;
    const BOOL bTrusted = getauxval(AT_SECURE) == 0;
    for (char** pp = environ; bTrusted && pp && *pp; ++pp)
        if (const char* pEqual = std::strchr(*pp, '='))
            values.try_emplace(CCmString(*pp, static_cast<size_t>(pEqual - *pp)), pEqual + 1);
    return std::make_shared<const CEnvironment>(std::move(values));
}

const CCmString* CEnvironment::Find(const CCmString& aName) const {
    const auto found = m_Values.find(aName);
    return found != m_Values.end() ? &found->second : nullptr;
}

CCmString CEnvironment::Get(const CCmString& aName) const {
    const CCmString* pValue = Find(aName);
    return pValue ? *pValue : CCmString();
}

std::vector<CCmString> CEnvironment::GetAll() const {
    std::vector<CCmString> all;
    for (const auto& [strName, strValue] : m_Values)
        all.push_back(strName + "=" + strValue);
    return all;
}

CProxySettings CEnvironment::ReadProxies() const {
    CProxySettings settings;
    settings.m_strSource = SOURCE;
    ReadServers_i("http_proxy", nullptr, settings.m_Http, settings);
    ReadServers_i("https_proxy", "HTTPS_PROXY", settings.m_Https, settings);
    ReadServers_i("all_proxy", "ALL_PROXY", settings.m_Other, settings);
    const char* pName = Get("no_proxy").empty() ? "NO_PROXY" : "no_proxy";
    if (const CCmString* pList = Find(pName)) {
        settings.List(SOURCE, pName, *pList);
        settings.m_Bypass.Add(*pList, EBypassDialect::LIST);
    }
    return settings;
}

void CEnvironment::ReadServers_i(const char* aLower, const char* aCapitals, CProxySettings::CServers& aServers,
                                 CProxySettings& aSettings) const {
    const char* pName = !aCapitals || Find(aLower) ? aLower : aCapitals;
    const CCmString* pValue = Find(pName);
    if (!pValue)
        return;
    aSettings.List(SOURCE, pName, *pValue);
    const CCmString strSource = CCmString(SOURCE) + " " + pName;
    if (TrimBlanks(*pValue).empty())
        aServers = {CCmProxyRoute::Direct(), strSource};
    else
        aSettings.SetServers(aServers, *pValue, strSource);
}

}  // namespace talvo
