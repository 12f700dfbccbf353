// The process's environment, as it was when it was copied.
#pragma once

#include <map>
#include <memory>

#include "talvo/proxy/discovery/proxy_settings.h"

namespace talvo {

// A copy, so that no thread reads variables while another one sets them. It does not change; any thread may read it.
class TALVO_API CEnvironment {
public:
    // The environment now; empty in a process that runs with another user's rights, because that user did not set it. Throws
    // std::bad_alloc.
    static std::shared_ptr<const CEnvironment> Copy();
    // For tests.
    explicit CEnvironment(std::map<CCmString, CCmString> aValues) : m_Values(std::move(aValues)) {}

    // Null: not set.
    const CCmString* Find(const CCmString& aName) const;
    CCmString Get(const CCmString& aName) const;  // "": not set

    // All variables as "NAME=value", for a child. Throws std::bad_alloc.
    std::vector<CCmString> GetAll() const;

    // http_proxy, https_proxy, all_proxy and no_proxy, and the last three in capitals. HTTP_PROXY is ignored: the client of a
    // CGI program could set it. An empty value makes its scheme direct. Throws std::bad_alloc.
    CProxySettings ReadProxies() const;

private:
    void ReadServers_i(const char* aLower, const char* aCapitals, CProxySettings::CServers& aServers,
                       CProxySettings& aSettings) const;

    std::map<CCmString, CCmString> m_Values;
};

}  // namespace talvo
