// The bytes of a server to a TLS client.
#include "fuzz/fuzz_tls.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static CFuzzTls* const s_pTls = new CFuzzTls(FALSE);  // as long as the process
    s_pTls->Run(aData, aSize);
    return 0;
}
