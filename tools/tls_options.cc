#include "tools/tls_options.h"

namespace tool {

namespace {

std::string Refusal(CmResult aResult, const std::string& aContent) {
    switch (aResult) {
    case CM_OK:
        return "";
    case CM_ERROR_NOT_FOUND:
        return aContent + " cannot be read";
    case CM_ERROR_OUT_OF_MEMORY:
        return "out of memory";
    default:
        return aContent + " cannot be used";
    }
}

std::string SetTrust(const TlsOptions& aOptions, CCmSslContext& aContext) {
    if (aOptions.m_strCaFile.empty())
        return "";
    return Refusal(aContext.SetTrust(aOptions.m_strCaFile.c_str()),
                   "--cacert: the PEM file '" + aOptions.m_strCaFile + "' with certificates");
}

std::string SetCertificate(const TlsOptions& aOptions, CCmSslContext& aContext) {
    if (aOptions.m_strCertFile.empty())
        return "";
    return Refusal(aContext.AddCertificate(aOptions.m_strCertFile.c_str(), aOptions.m_strKeyFile.c_str()),
                   "--cert, --key: the PEM files '" + aOptions.m_strCertFile + "' with a certificate and '" +
                       aOptions.m_strKeyFile + "' with its key, which has no pass phrase,");
}

}  // namespace

std::string MakeClientContext(const TlsOptions& aOptions, CCmRefPtrT<CCmSslContext>& aContext) {
    if (!aOptions.HasFiles() && !aOptions.m_bInsecure)
        return "";
    aContext = new CCmSslContext;
    std::string strProblem = SetTrust(aOptions, *aContext);
    if (strProblem.empty())
        strProblem = SetCertificate(aOptions, *aContext);
    if (strProblem.empty() && aOptions.m_bInsecure)
        strProblem = Refusal(aContext->SetVerify(CM_TLS_VERIFY_NONE), "--insecure");
    return strProblem;
}

std::string MakeServerContext(const TlsOptions& aOptions, CCmRefPtrT<CCmSslContext>& aContext) {
    aContext = new CCmSslContext;
    const std::string strProblem = SetCertificate(aOptions, *aContext);
    if (!strProblem.empty() || aOptions.m_strCaFile.empty())
        return strProblem;
    const std::string strTrust = SetTrust(aOptions, *aContext);
    return strTrust.empty() ? Refusal(aContext->SetVerify(CM_TLS_VERIFY_REQUIRED), "--cacert") : strTrust;
}

CmResult UseContext(ICmAcceptorConnectorId* aId, CCmRefPtrT<CCmSslContext> aContext) {
    return cm_get_connect_options(aId)->SetOption(CM_OPT_CONNECT_SSL_CONTEXT, &aContext);
}

}  // namespace tool
