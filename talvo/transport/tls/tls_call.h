// The buffers and the state of one call of a TLS session.
#pragma once

#include <vector>

#include "talvo/transport/network_buffers.h"
#include "talvo/transport/tls/tls_session.h"

namespace talvo {

// Of a thread. Each is used within one call only, so that idle sessions have none.
struct CTlsBuffers {
    CNetworkBuffers m_Received;  // not decrypted yet
    char m_Record[CTlsSession::RECORD];
    std::vector<char> m_Sealed;
    bool m_bInUse = false;
};

// While in scope, its session has the thread's buffers. A call inside another one, from a sink of the trace, has its own.
class CTlsCall {
public:
    CTlsCall(CTlsCall*& aCurrent, DWORD aReadSize);
    ~CTlsCall();
    CTlsCall(const CTlsCall&) = delete;
    CTlsCall& operator=(const CTlsCall&) = delete;

    // FALSE: memory ran out, or the session itself is in a call.
    bool IsReady() const { return m_pBuffers && !m_pOuter; }

    CTlsBuffers* const m_pBuffers;
    DWORD m_dwReadSize;              // of the ciphertext
    const char* m_pInput = nullptr;  // in m_Received
    DWORD m_dwInput = 0;
    bool m_bMayReceive = false;  // once
    bool m_bReceived = false;
    bool m_bDry = false;  // the socket would block

private:
    CTlsCall*& m_pCurrent;
    CTlsCall* const m_pOuter;
};

}  // namespace talvo
