#include "tools/certificate.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <ctime>
#include <memory>

namespace tool {

namespace {

template <auto Free>
struct Freer {
    template <class T>
    void operator()(T* aObject) const {
        Free(aObject);
    }
};
using X509Ptr = std::unique_ptr<X509, Freer<X509_free>>;
using NamesPtr = std::unique_ptr<GENERAL_NAMES, Freer<GENERAL_NAMES_free>>;
using BioPtr = std::unique_ptr<BIO, Freer<BIO_free>>;

std::string Print(const X509_NAME* aName) {
    const BioPtr pText(BIO_new(BIO_s_mem()));
    if (!pText || X509_NAME_print_ex(pText.get(), aName, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0)
        return "";
    char* pBytes = nullptr;
    const long lLength = BIO_get_mem_data(pText.get(), &pBytes);
    return lLength > 0 ? std::string(pBytes, static_cast<size_t>(lLength)) : "";
}

std::string BytesOf(const ASN1_STRING* aString) {
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(aString)), static_cast<size_t>(ASN1_STRING_length(aString))};
}

std::string PrintAddress(const std::string& aBytes) {
    char szText[INET6_ADDRSTRLEN] = "";
    if (aBytes.size() == sizeof(in_addr) || aBytes.size() == sizeof(in6_addr))
        inet_ntop(aBytes.size() == sizeof(in_addr) ? AF_INET : AF_INET6, aBytes.data(), szText, sizeof szText);
    return szText;
}

std::vector<std::string> NamesOf(const X509* aCertificate) {
    const NamesPtr pNames(static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(aCertificate, NID_subject_alt_name, nullptr, nullptr)));
    std::vector<std::string> vecNames;
    for (int i = 0; pNames && i < sk_GENERAL_NAME_num(pNames.get()); ++i) {
        const GENERAL_NAME* pName = sk_GENERAL_NAME_value(pNames.get(), i);
        if (pName->type == GEN_DNS)
            vecNames.push_back(BytesOf(pName->d.dNSName));
        else if (pName->type == GEN_IPADD)
            vecNames.push_back(PrintAddress(BytesOf(pName->d.iPAddress)));
    }
    return vecNames;
}

std::string Date(const ASN1_TIME* aTime) {
    tm time{};
    char szText[16] = "?";
    if (ASN1_TIME_to_tm(aTime, &time) == 1)
        std::strftime(szText, sizeof szText, "%Y-%m-%d", &time);
    return szText;
}

int DaysUntil(const ASN1_TIME* aTime) {
    int nDays = 0, nSeconds = 0;
    ASN1_TIME_diff(&nDays, &nSeconds, nullptr, aTime);
    return nSeconds < 0 ? nDays - 1 : nDays;
}

std::string Join(const std::vector<std::string>& aTexts) {
    std::string strAll;
    for (const std::string& strText : aTexts)
        strAll += (strAll.empty() ? "" : " ") + strText;
    return strAll;
}

}  // namespace

bool ParseCertificate(std::string_view aDer, Certificate& aCertificate) {
    const auto* pBytes = reinterpret_cast<const unsigned char*>(aDer.data());
    const X509Ptr pCertificate(d2i_X509(nullptr, &pBytes, static_cast<long>(aDer.size())));
    if (pCertificate) {
        aCertificate.m_strSubject = Print(X509_get_subject_name(pCertificate.get()));
        aCertificate.m_strIssuer = Print(X509_get_issuer_name(pCertificate.get()));
        aCertificate.m_vecNames = NamesOf(pCertificate.get());
        aCertificate.m_strNotBefore = Date(X509_get0_notBefore(pCertificate.get()));
        aCertificate.m_strNotAfter = Date(X509_get0_notAfter(pCertificate.get()));
        aCertificate.m_nDaysLeft = DaysUntil(X509_get0_notAfter(pCertificate.get()));
    }
    ERR_clear_error();  // the library shares this thread
    return pCertificate != nullptr;
}

std::string DescribeCertificate(const Certificate& a) {
    const std::string strNames = a.m_vecNames.empty() ? "no names" : "names " + Join(a.m_vecNames);
    const std::string strLeft = a.m_nDaysLeft < 0 ? "expired" : std::to_string(a.m_nDaysLeft) + " days left";
    return a.m_strSubject + "; " + strNames + "; issuer " + a.m_strIssuer + "; " + a.m_strNotBefore + " to " + a.m_strNotAfter +
           ", " + strLeft;
}

}  // namespace tool
