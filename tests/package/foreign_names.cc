// The library's header beside one that declares BOOL, DWORD, WORD and BYTE, too. What links here has the library's own widths.
#include FIRST
#include SECOND
#include <talvo/base/version.h>

#include <cstdio>
#include <cstring>

static_assert(sizeof(CmByte) == 1 && sizeof(CmWord) == 2 && sizeof(CmDword) == 4 && sizeof(CmBool) == 4);
#ifdef GLOBAL_TYPES
static_assert(sizeof(BYTE) == 1 && sizeof(WORD) == 2 && sizeof(DWORD) == 4 && sizeof(BOOL) == 4 && TRUE == 1 && FALSE == 0);
#endif

int main() {
    const unsigned nVersion = cm_version();
    char szVersion[32];
    std::snprintf(szVersion, sizeof szVersion, "%u.%u.%u", nVersion / 10000, nVersion / 100 % 100, nVersion % 100);
    CCmInetAddr addr;
    const bool bLinked = addr.SetIpAddrBy4Bytes(0x7f000001, CM_FALSE) == CM_OK && addr.SetPort(7) == CM_OK;
    return bLinked && nVersion == TALVO_VERSION && std::strcmp(szVersion, TALVO_VERSION_TEXT) == 0 ? 0 : 1;
}
