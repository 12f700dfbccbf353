// The peers that have sent datagrams to a socket.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "talvo/base/types.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/udp/peer_key.h"

namespace talvo {

// Peers by address, and in the order of their last datagrams. Every operation takes constant time, for any choice of addresses
// by unknown peers. Independent of sockets and clocks: times are microseconds that the caller reads. The objects are not owned.
// One thread.
template <class Object>
class CPeerTableT {
    struct CLink {
        CLink* m_pOlder = this;
        CLink* m_pNewer = this;
    };

public:
    class CPeer : private CLink {
    public:
        Object* Get() const { return m_pObject; }

    private:
        friend class CPeerTableT;
        Object* m_pObject = nullptr;
        int64_t m_llHeardUsec = 0;
    };

    CPeerTableT() = default;
    CPeerTableT(const CPeerTableT&) = delete;
    CPeerTableT& operator=(const CPeerTableT&) = delete;

    size_t GetCount() const { return m_Peers.size(); }

    // Null: unknown. The peer keeps its place in memory until Remove.
    CPeer* Find(const CPeerKey& aKey) {
        const auto found = m_Peers.find(aKey);
        return found == m_Peers.end() ? nullptr : &found->second;
    }

    // Adds a peer that is not in the table; its last datagram is now. FALSE: memory ran out.
    CmBool Add(const CPeerKey& aKey, Object* aObject, int64_t aNowUsec) {
        return WithMemory([&] {
            CPeer& peer = m_Peers[aKey];
            peer.m_pObject = aObject;
            Touch(peer, aNowUsec);
        });
    }

    void Touch(CPeer& aPeer, int64_t aNowUsec) {
        aPeer.m_llHeardUsec = aNowUsec;
        Unlink(aPeer);
        aPeer.m_pOlder = m_Ends.m_pOlder;
        aPeer.m_pNewer = &m_Ends;
        m_Ends.m_pOlder->m_pNewer = &aPeer;
        m_Ends.m_pOlder = &aPeer;
    }

    // Does nothing for an unknown one.
    void Remove(const CPeerKey& aKey) {
        CPeer* pPeer = Find(aKey);
        if (!pPeer)
            return;
        Unlink(*pPeer);
        m_Peers.erase(aKey);
    }

    // The peer with the longest silence; null: there is none.
    CPeer* GetSilent() { return m_Peers.empty() ? nullptr : static_cast<CPeer*>(m_Ends.m_pNewer); }
    static int64_t GetHeardUsec(const CPeer& aPeer) { return aPeer.m_llHeardUsec; }

private:
    static void Unlink(CLink& aLink) {
        aLink.m_pOlder->m_pNewer = aLink.m_pNewer;
        aLink.m_pNewer->m_pOlder = aLink.m_pOlder;
        aLink.m_pOlder = aLink.m_pNewer = &aLink;
    }

    CLink m_Ends;  // its newer neighbour is the oldest peer
    std::unordered_map<CPeerKey, CPeer, CPeerKeyHash> m_Peers;
};

}  // namespace talvo
