// The buffers of a network thread.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <memory>

#include "talvo/base/types.h"
#include "talvo/event/trial_pace.h"

namespace talvo {

// Shared by all transports of one thread. This is safe because each is used within one call only.
struct CNetworkBuffers {
    static constexpr CmDword DEFAULT_READ = 16384;
    static constexpr CmDword MAX_PIECES = 64;

    // Room for one read of aSize bytes, owned by the thread. aSize (in and out) gets less if memory runs out, never 0. Call it
    // before each read.
    char* GetRoom(CmDword& aSize);

    iovec m_Iov[MAX_PIECES];
    CTrialPace m_EarlyReads;               // a call in vain if the accepted connection has no bytes yet
    const void* m_pEarlyReader = nullptr;  // the transport whose next read is such a one; only compared

private:
    // As allocated memory. A receive into bytes less than 16 behind the start of a page can take four times as long.
    alignas(16) char m_First[DEFAULT_READ];
    std::unique_ptr<char[]> m_pLarger;
    CmDword m_dwLarger = 0;
};

// For datagrams, several a system call; shared likewise, and valid while a batch is handled.
struct CDatagramBuffers {
    static constexpr CmDword BATCH = 32;
    // Holds a datagram of any size. Most datagrams end near the start of their slot; the extra bytes prevent the starts of all
    // slots from competing for the same few cache lines.
    static constexpr size_t SLOT = 65536 + 1280;

    CDatagramBuffers();

    char m_Slots[BATCH][SLOT];
    iovec m_Iov[BATCH];
    sockaddr_in6 m_From[BATCH];  // of either family
    mmsghdr m_Received[BATCH];   // each over its slot and address
    mmsghdr m_Sent[BATCH];
};

// The calling thread's, from the first call until the thread ends. Null: memory ran out, and the next call tries again. The
// second needs 2 MiB of address space.
CNetworkBuffers* GetNetworkBuffers();
CDatagramBuffers* GetDatagramBuffers();

}  // namespace talvo
