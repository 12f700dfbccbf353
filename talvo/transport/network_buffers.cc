#include "talvo/transport/network_buffers.h"

#include <memory>

namespace talvo {

namespace {

// On the heap: a thread that moves no data pays a pointer for it. The plain pointer is what the message path reads; the model
// of thread-local storage spares it a call each time.
[[gnu::tls_model("initial-exec")]] constinit thread_local CNetworkBuffers* s_pBuffers = nullptr;

struct COwner {
    ~COwner() { s_pBuffers = nullptr; }
    std::unique_ptr<CNetworkBuffers> m_pBuffers{new CNetworkBuffers};
};

[[gnu::noinline]] CNetworkBuffers& MakeNetworkBuffers() {
    thread_local COwner s_Owner;
    s_pBuffers = s_Owner.m_pBuffers.get();
    return *s_pBuffers;
}

}  // namespace

CNetworkBuffers& GetNetworkBuffers() { return s_pBuffers ? *s_pBuffers : MakeNetworkBuffers(); }
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

CDatagramBuffers& GetDatagramBuffers() {
    thread_local const std::unique_ptr<CDatagramBuffers> s_pBuffers(new CDatagramBuffers);
    return *s_pBuffers;
}

}  // namespace talvo
