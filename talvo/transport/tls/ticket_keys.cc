#include "talvo/transport/tls/ticket_keys.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <new>

#include "talvo/base/clock.h"

namespace talvo {

namespace {

// A copy of a key, cleansed at the end of the scope.
template <class Key>
struct CCopyT {
    ~CCopyT() { OPENSSL_cleanse(&m_Key, sizeof m_Key); }
    Key m_Key{};
};

}  // namespace

CTicketKeys::CTicketKeys() : m_pCipher(EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr)) {
    if (!m_pCipher)
        throw std::bad_alloc();
}

CTicketKeys::~CTicketKeys() {
    OPENSSL_cleanse(&m_Current, sizeof m_Current);
    OPENSSL_cleanse(&m_Previous, sizeof m_Previous);
    EVP_CIPHER_free(m_pCipher);
}

// A key that is two terms old opens no ticket. FALSE: there are no random bytes.
BOOL CTicketKeys::Change_i() {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    if (m_bPrevious && llNow - m_Previous.m_llMade >= 2 * KEY_USEC)
        m_bPrevious = FALSE;
    if (m_bCurrent && llNow - m_Current.m_llMade < KEY_USEC)
        return TRUE;
    CCopyT<CKey> copy;
    CKey& key = copy.m_Key;
    if (RAND_bytes(key.m_Name.data(), static_cast<int>(key.m_Name.size())) != 1 ||
        RAND_priv_bytes(key.m_Cipher.data(), static_cast<int>(key.m_Cipher.size())) != 1 ||
        RAND_priv_bytes(key.m_Mac.data(), static_cast<int>(key.m_Mac.size())) != 1)
        return FALSE;
    key.m_llMade = llNow;
    m_bPrevious = m_bCurrent && llNow - m_Current.m_llMade < 2 * KEY_USEC;
    m_Previous = m_Current;
    m_Current = key;
    m_bCurrent = TRUE;
    return TRUE;
}

bool CTicketKeys::SetMac_i(const CKey& aKey, evp_mac_ctx_st* aMac) {
    char szDigest[] = "SHA256";
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_octet_string(OSSL_MAC_PARAM_KEY, const_cast<unsigned char*>(aKey.m_Mac.data()), aKey.m_Mac.size()),
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, szDigest, 0), OSSL_PARAM_construct_end()};
    return EVP_MAC_CTX_set_params(aMac, params) == 1;
}

CTicketKeys::EResult CTicketKeys::Seal(unsigned char* aName, unsigned char* aIv, evp_cipher_ctx_st* aCipher,
                                       evp_mac_ctx_st* aMac) {
    CCopyT<CKey> copy;
    {
        const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        if (!Change_i())
            return FAILED;
        copy.m_Key = m_Current;
    }
    const CKey& key = copy.m_Key;
    std::copy(key.m_Name.begin(), key.m_Name.end(), aName);
    const bool bSet = RAND_bytes(aIv, EVP_CIPHER_get_iv_length(m_pCipher)) == 1 &&
                      EVP_EncryptInit_ex(aCipher, m_pCipher, nullptr, key.m_Cipher.data(), aIv) == 1 && SetMac_i(key, aMac);
    return bSet ? GOOD : FAILED;
}

CTicketKeys::EResult CTicketKeys::Open(const unsigned char* aName, const unsigned char* aIv, evp_cipher_ctx_st* aCipher,
                                       evp_mac_ctx_st* aMac) {
    CCopyT<CKey> copy;
    BOOL bCurrent = FALSE;
    {
        const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        if (!Change_i())
            return FAILED;
        bCurrent = std::equal(m_Current.m_Name.begin(), m_Current.m_Name.end(), aName);
        if (!bCurrent && !(m_bPrevious && std::equal(m_Previous.m_Name.begin(), m_Previous.m_Name.end(), aName)))
            return NONE;
        copy.m_Key = bCurrent ? m_Current : m_Previous;
    }
    const CKey& key = copy.m_Key;
    if (EVP_DecryptInit_ex(aCipher, m_pCipher, nullptr, key.m_Cipher.data(), aIv) != 1 || !SetMac_i(key, aMac))
        return FAILED;
    return bCurrent ? GOOD : RENEW;
}

}  // namespace talvo
