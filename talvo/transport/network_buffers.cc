#include "talvo/transport/network_buffers.h"

#include <algorithm>
#include <new>

#include "talvo/transport/thread_buffers.h"

namespace talvo {

namespace {

// On the heap: a thread that moves no data pays for one pointer only. The message path reads the plain pointers; this model of
// thread-local storage saves a call for each access.
[[gnu::tls_model("initial-exec")]] constinit thread_local CNetworkBuffers* t_pNetwork = nullptr;
[[gnu::tls_model("initial-exec")]] constinit thread_local CDatagramBuffers* t_pDatagram = nullptr;

}  // namespace

CNetworkBuffers* GetNetworkBuffers() { return t_pNetwork ? t_pNetwork : MakeThreadBuffers(t_pNetwork); }
CDatagramBuffers* GetDatagramBuffers() { return t_pDatagram ? t_pDatagram : MakeThreadBuffers(t_pDatagram); }

// Reused at once, so it is not cleared. A larger one replaces it without a copy.
char* CNetworkBuffers::GetRoom(DWORD& aSize) {
    if (aSize > DEFAULT_READ && aSize > m_dwLarger) {
        m_pLarger.reset();
        m_pLarger.reset(new (std::nothrow) char[aSize]);
        m_dwLarger = m_pLarger ? aSize : 0;
    }
    const BOOL bFirst = aSize <= DEFAULT_READ || !m_pLarger;
    aSize = bFirst ? std::min(aSize, DEFAULT_READ) : aSize;
    return bFirst ? m_First : m_pLarger.get();
}

CDatagramBuffers::CDatagramBuffers() {
    for (DWORD i = 0; i < BATCH; ++i) {
        m_Iov[i] = {m_Slots[i], SLOT};
        m_Received[i] = {};
        m_Received[i].msg_hdr.msg_iov = &m_Iov[i];
        m_Received[i].msg_hdr.msg_iovlen = 1;
        m_Received[i].msg_hdr.msg_name = &m_From[i];
        m_Sent[i] = {};
    }
}

}  // namespace talvo
