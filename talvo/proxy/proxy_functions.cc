#include "talvo/proxy/proxy_functions.h"

#include <string_view>

#include "talvo/base/ascii.h"
#include "talvo/base/with_memory.h"
#include "talvo/http/message/ntlm_permission.h"
#include "talvo/proxy/credential_desk.h"
#include "talvo/transport/proxy_route.h"

using talvo::CCredentialDesk;

namespace {

// aProxy (out): the text by which the desk and the connectors name it.
CmResult NameProxy(const char* aText, CCmString& aProxy) {
    CCmProxyRoute route;
    const CmResult rv = aText ? CCmProxyRoute::FromUris(aText, route) : CM_ERROR_INVALID_ARG;
    if (rv != CM_OK)
        return rv;
    const CCmProxyServer& server = route.GetServers()[0];
    if (route.GetServers().size() != 1 || server.IsDirect() || server.HasCredentials())
        return CM_ERROR_INVALID_ARG;
    return talvo::WithMemory([&] { aProxy = server.GetText(); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

BOOL IsGood(std::string_view aText) { return aText.size() <= CCredentialDesk::LONGEST_TEXT && !talvo::has_control(aText); }

CmResult MakeCredentials(const char* aUser, const char* aPassword, CCmCredentials& aCredentials) {
    if (!aUser || !aPassword || !*aUser || !IsGood(aUser) || !IsGood(aPassword))
        return CM_ERROR_INVALID_ARG;
    return aCredentials.Set(aUser, aPassword);
}

}  // namespace

int32_t cm_proxy_set_credentials(const char* proxy, const char* realm, const char* user, const char* password) {
    CCmString strProxy;
    CCmCredentials credentials;
    CmResult rv = NameProxy(proxy, strProxy);
    if (rv == CM_OK)
        rv = realm && !IsGood(realm) ? CM_ERROR_INVALID_ARG : MakeCredentials(user, password, credentials);
    return rv == CM_OK ? CCredentialDesk::Instance().SetCredentials(strProxy, realm, credentials) : rv;
}

int32_t cm_proxy_forget_credentials(const char* proxy) {
    CCmString strProxy;
    const CmResult rv = NameProxy(proxy, strProxy);
    return rv == CM_OK ? CCredentialDesk::Instance().ForgetAll(strProxy) : rv;
}

int32_t cm_proxy_set_asker(cm_proxy_asker callback, void* arg) { return CCredentialDesk::Instance().SetAsker(callback, arg); }

int32_t cm_proxy_answer(uint32_t id, const char* user, const char* password) {
    CCmCredentials credentials;
    const CmResult rv = user ? MakeCredentials(user, password, credentials) : CM_OK;
    return rv == CM_OK ? CCredentialDesk::Instance().Answer(id, credentials) : rv;
}

int32_t cm_proxy_allow_ntlm(int allow) {
    talvo::AllowNtlm(allow != 0);
    return CM_OK;
}
