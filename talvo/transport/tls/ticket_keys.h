// The keys with which a server seals its tickets.
#pragma once

#include <array>

#include "talvo/base/mutex.h"
#include "talvo/base/types.h"

struct ssl_ctx_st;
struct ssl_st;
struct evp_cipher_st;
struct evp_cipher_ctx_st;
struct evp_mac_ctx_st;

namespace talvo {

// A new key every 12 hours, and the one before it still opens tickets. The tickets are AES-256-CBC with HMAC-SHA256. Any
// thread.
class CTicketKeys {
public:
    static constexpr int64_t KEY_USEC = int64_t{12} * 3600 * 1000000;

    // Throws std::bad_alloc.
    CTicketKeys();
    ~CTicketKeys();
    CTicketKeys(const CTicketKeys&) = delete;
    CTicketKeys& operator=(const CTicketKeys&) = delete;

    // The results of OpenSSL's callback for ticket keys.
    enum EResult { FAILED = -1, NONE = 0, GOOD = 1, RENEW = 2 };
    // aName (16 bytes) and aIv (out).
    EResult Seal(unsigned char* aName, unsigned char* aIv, evp_cipher_ctx_st* aCipher, evp_mac_ctx_st* aMac);
    // NONE: no such key. RENEW: the ticket is good, and the next one has a newer key.
    EResult Open(const unsigned char* aName, const unsigned char* aIv, evp_cipher_ctx_st* aCipher, evp_mac_ctx_st* aMac);

private:
    struct CKey {
        std::array<unsigned char, 16> m_Name;
        std::array<unsigned char, 32> m_Cipher, m_Mac;
        int64_t m_llMade;  // CCmClock::GetTimeOfDayUsec
    };
    BOOL Change_i() CM_REQUIRES(m_Mutex);
    static bool SetMac_i(const CKey& aKey, evp_mac_ctx_st* aMac);

    evp_cipher_st* const m_pCipher;
    CCmMutexThread m_Mutex;
    CKey m_Current CM_GUARDED_BY(m_Mutex){};
    CKey m_Previous CM_GUARDED_BY(m_Mutex){};
    BOOL m_bCurrent CM_GUARDED_BY(m_Mutex) = FALSE;
    BOOL m_bPrevious CM_GUARDED_BY(m_Mutex) = FALSE;
};

}  // namespace talvo
