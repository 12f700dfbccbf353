// The TLS context of clients without one of their own.
#pragma once

#include "talvo/base/mutex.h"
#include "talvo/transport/tls/ssl_context.h"

namespace talvo {

// Made from section "Ssl" of the configuration. The section and its files are checked once a minute at most; after a change
// new connections get a new context. Any thread.
class TALVO_API CDefaultContext {
public:
    // Of the process.
    static CDefaultContext& Instance();

    // May wait for the disk. Null: memory ran out. If a file cannot be used, the trace has a line and no certificate is
    // trusted.
    CCmRefPtrT<CCmSslContext> Get();
    // Releases the context; the next Get makes a new one.
    void Clear();

private:
    // Makes the context, or a new one if the files have changed. Throws std::bad_alloc.
    void Renew();

    CCmMutexThread m_Mutex;
    CCmRefPtrT<CCmSslContext> m_pContext CM_GUARDED_BY(m_Mutex);
    CCmTimeValue m_tvLooked CM_GUARDED_BY(m_Mutex);
    CCmString m_strState CM_GUARDED_BY(m_Mutex);  // of the section and its files, when they were read
};

}  // namespace talvo
