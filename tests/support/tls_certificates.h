// Certificates of scripts/make-certificates and contexts with them, made anew in each process.
#pragma once

#include <string>

#include "talvo/transport/tls/ssl_context.h"
#include "tests/support/temp_dir.h"

class CTestCertificates {
public:
    // aCases: of the script, separated by blanks.
    explicit CTestCertificates(const std::string& aCases = "");

    // Without cases. "server" has OwnLoopback() among its addresses.
    static const CTestCertificates& Get();

    // "root.pem", "server.key": see the script.
    std::string PathOf(const std::string& aName) const { return m_Dir.PathOf(aName); }

    // Presents the certificate aName.
    CCmRefPtrT<CCmSslContext> MakeServer(const std::string& aName = "server") const;
    // Trusts the root; presents the certificate aName unless it is "".
    CCmRefPtrT<CCmSslContext> MakeClient(const std::string& aName = "") const;

private:
    const CCmTempDir m_Dir;
};
