// The bytes of a client to a TLS server.
#include "fuzz/fuzz_tls.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    static CFuzzTls* const s_pTls = new CFuzzTls(TRUE);  // as long as the process
    s_pTls->Run(aData, aSize);
    return 0;
}
