// The parts of a certificate that people look at.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

struct Certificate {
    std::string m_strSubject;             // "CN=localhost,O=Example"
    std::string m_strIssuer;              // likewise
    std::vector<std::string> m_vecNames;  // host names and addresses that it is valid for
    std::string m_strNotBefore;           // "2026-11-22"
    std::string m_strNotAfter;
    int m_nDaysLeft = 0;  // until then; negative: it has expired
};

// aDer: the certificate in DER. false: it cannot be parsed.
bool ParseCertificate(std::string_view aDer, Certificate& aCertificate);

// "CN=localhost; names localhost 127.0.0.1; issuer CN=Example root; 2026-11-22 to 2026-12-22, 29 days left".
std::string DescribeCertificate(const Certificate& aCertificate);

}  // namespace tool
