#include "tests/support/tls_certificates.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/own_loopback.h"

CTestCertificates::CTestCertificates(const std::string& aCases) {
    const std::string strCommand =
        std::string(TALVO_MAKE_CERTIFICATES) + " --name IP:" + OwnLoopback() + " " + m_Dir.PathOf("");
    EXPECT_EQ(0, std::system((strCommand + " " + aCases).c_str()));
}

const CTestCertificates& CTestCertificates::Get() {
    static const CTestCertificates s_Certificates;
    return s_Certificates;
}

CCmRefPtrT<CCmSslContext> CTestCertificates::MakeServer(const std::string& aName) const {
    CCmRefPtrT<CCmSslContext> pContext(new CCmSslContext);
    EXPECT_EQ(CM_OK, pContext->AddCertificate(PathOf(aName + ".pem").c_str(), PathOf(aName + ".key").c_str()));
    return pContext;
}

CCmRefPtrT<CCmSslContext> CTestCertificates::MakeClient(const std::string& aName) const {
    CCmRefPtrT<CCmSslContext> pContext = aName.empty() ? new CCmSslContext : MakeServer(aName);
    EXPECT_EQ(CM_OK, pContext->SetTrust(PathOf("root.pem").c_str()));
    return pContext;
}
