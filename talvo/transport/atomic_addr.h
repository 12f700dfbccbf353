// An endpoint that several threads read without a lock.
#pragma once

#include <atomic>

#include "talvo/base/inet_addr.h"

namespace talvo {

// An address, or none, in the room of one pointer. One thread stores, any thread loads. An address that is not IPv4 is stored
// once: a later Store has no effect, because another thread may still load the first one.
class CAtomicAddr {
public:
    CAtomicAddr() = default;
    CAtomicAddr(const CAtomicAddr&) = delete;
    CAtomicAddr& operator=(const CAtomicAddr&) = delete;
    ~CAtomicAddr() {
        if (CAddrRecord* pRecord = GetRecord())
            pRecord->ReleaseReference();
    }

    void Store(const CCmInetAddr& aAddr) {
        if (GetRecord())
            return;
        if (!aAddr.GetOther_i()) {
            m_ullAddr = uint64_t{aAddr.GetIpAddrIn4Bytes()} << 17 | uint64_t{aAddr.GetPort()} << 1 | IPV4;
            return;
        }
        aAddr.m_pRecord->AddReference();
        m_ullAddr = reinterpret_cast<uintptr_t>(aAddr.m_pRecord.Get());
    }

    // FALSE, with 0.0.0.0:0 in aAddr (out): no address was stored.
    CmBool Load(CCmInetAddr& aAddr) const {
        const uint64_t ullAddr = m_ullAddr;
        if (CAddrRecord* pRecord = GetRecord())
            aAddr.SetOther_i(pRecord);
        else
            aAddr.SetIpv4_i(static_cast<CmDword>(ullAddr >> 17), static_cast<CmWord>(ullAddr >> 1));
        return ullAddr != 0;
    }

    CmBool IsEmpty() const { return m_ullAddr == 0; }
    CmBool IsPath() const {
        const CAddrRecord* pRecord = GetRecord();
        return pRecord && pRecord->GetPtr()->sa_family == AF_UNIX;
    }

private:
    static constexpr uint64_t IPV4 = 1;  // not set in the address of a record

    CAddrRecord* GetRecord() const {
        const uint64_t ullAddr = m_ullAddr;
        return ullAddr & IPV4 ? nullptr : reinterpret_cast<CAddrRecord*>(static_cast<uintptr_t>(ullAddr));
    }

    std::atomic<uint64_t> m_ullAddr{0};
};

}  // namespace talvo
