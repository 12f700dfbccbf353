#include "tools/tls_arguments.h"

#include <CLI/CLI.hpp>

namespace tool {

namespace {

void AddFile(CLI::App& aApp, const char* aName, std::string& aVariable, const char* aHelp) {
    aApp.add_option(aName, aVariable, aHelp)->check(CLI::ExistingFile)->option_text("FILE");
}

void Require(CLI::App& aApp, const char* aName, const char* aOther) { aApp.get_option(aName)->needs(aApp.get_option(aOther)); }

void DeclareCertificate(CLI::App& aApp, Arguments& a) {
    AddFile(aApp, "--cert", a.m_Tls.m_strCertFile, "Own certificate, and behind it the intermediate ones, PEM");
    AddFile(aApp, "--key", a.m_Tls.m_strKeyFile, "Key of the own certificate, PEM");
    Require(aApp, "--cert", "--key");
    Require(aApp, "--key", "--cert");
}

}  // namespace

void DeclareTrust(CLI::App& aApp, Arguments& a) {
    AddFile(aApp, "--cacert", a.m_Tls.m_strCaFile, "Certificates to trust instead of the system's, PEM");
    DeclareCertificate(aApp, a);
}

void DeclareInsecure(CLI::App& aApp, Arguments& a) {
    aApp.add_flag("--insecure", a.m_Tls.m_bInsecure,
                  "Do not verify the server: anyone on the way can then read and change the data")
        ->excludes(aApp.get_option("--cacert"));
}

void DeclareServerName(CLI::App& aApp, Arguments& a) {
    aApp.add_option("--servername", a.m_Tls.m_strServerName, "Name that the server's certificate must have; default: the host")
        ->option_text("NAME");
}

void DeclareTlsClient(CLI::App& aApp, Arguments& a) {
    aApp.add_flag("--tls", a.m_Tls.m_bTls, "Encrypt the connection by TLS");
    DeclareTrust(aApp, a);
    DeclareInsecure(aApp, a);
    DeclareServerName(aApp, a);
    for (const char* pName : {"--cacert", "--cert", "--insecure", "--servername"})
        Require(aApp, pName, "--tls");
}

void DeclareClientTrust(CLI::App& aApp, Arguments& a) {
    DeclareCertificate(aApp, a);
    AddFile(aApp, "--cacert", a.m_Tls.m_strCaFile, "Require client certificates that one of these has signed, PEM");
    Require(aApp, "--cacert", "--cert");
}

void DeclareTlsServer(CLI::App& aApp, Arguments& a) {
    aApp.add_flag("--tls", a.m_Tls.m_bTls, "Encrypt the connections by TLS, with --cert and --key");
    DeclareClientTrust(aApp, a);
    Require(aApp, "--tls", "--cert");
    Require(aApp, "--cert", "--tls");
}

std::string CheckTlsClient(Arguments& a) {
    const std::string& strName = a.m_Tls.m_strServerName;
    if (!strName.empty() && !IsHost(strName))
        return "--servername: '" + strName + "' is neither a host name nor an IP address";
    if (a.m_Tls.m_bTls && strName.empty() && IsPath(a.m_Addr))
        return "TLS to '" + cm_address_text(a.m_Addr) + "' needs --servername";
    return MakeClientContext(a.m_Tls, a.m_pContext);
}

}  // namespace tool
