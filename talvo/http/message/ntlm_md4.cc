#define OPENSSL_SUPPRESS_DEPRECATED  // MD4 is broken; NTLM has no other hash of a password

#include "talvo/http/message/ntlm_md4.h"

#include <openssl/md4.h>

BOOL talvo::Md4(std::string_view aText, CNtlmKey& aHash) {
    return MD4(reinterpret_cast<const unsigned char*>(aText.data()), aText.size(), aHash.data()) != nullptr;
}
