// The buffers and the state of one call of a TLS session.
#pragma once

#include <memory>
#include <vector>

#include "talvo/transport/tls/tls_session.h"

namespace talvo {

// Ciphertext from one read of the socket. Large, so that there is one a thread; a session keeps it only while bytes are left.
struct CTlsInput {
    DWORD GetSize() const { return m_dwEnd - m_dwBegin; }

    std::unique_ptr<char[]> m_pBytes;
    DWORD m_dwRoom = 0;
    DWORD m_dwBegin = 0;
    DWORD m_dwEnd = 0;
};

// Of a thread. Each is used within one call only, so that idle sessions have none.
struct CTlsBuffers {
    // Null: memory ran out.
    std::unique_ptr<CTlsInput> TakeInput(DWORD aRoom);
    void GiveBack(std::unique_ptr<CTlsInput> aInput);

    char m_Record[CTlsSession::RECORD];
    std::vector<char> m_Sealed;
    bool m_bInUse = false;

private:
    std::unique_ptr<CTlsInput> m_pInput;  // for the next read
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
    const DWORD m_dwReadSize;    // of the ciphertext; 0: this call does not read
    bool m_bMayReceive = false;  // once
    bool m_bReceived = false;
    bool m_bDry = false;          // the socket would block
    size_t m_stAlone = SIZE_MAX;  // the data of a send's only record, which needs no copy to leave

private:
    CTlsCall*& m_pCurrent;
    CTlsCall* const m_pOuter;
};

}  // namespace talvo
