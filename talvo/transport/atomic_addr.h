// An endpoint that several threads read without a lock.
#pragma once

#include <atomic>

#include "talvo/base/inet_addr.h"

namespace talvo {

// An address and a port, or none. One thread stores, any thread loads.
class CAtomicAddr {
public:
    void Store(const CCmInetAddr& aAddr) { m_ullAddr = KNOWN | uint64_t{aAddr.GetIpAddrIn4Bytes()} << 16 | aAddr.GetPort(); }
    // FALSE, with 0.0.0.0:0 in aAddr (out): no address was stored.
    BOOL Load(CCmInetAddr& aAddr) const {
        const uint64_t ullAddr = m_ullAddr;
        aAddr.SetIpAddrBy4Bytes(static_cast<DWORD>(ullAddr >> 16));
        aAddr.SetPort(static_cast<WORD>(ullAddr));
        return ullAddr != 0;
    }

private:
    static constexpr uint64_t KNOWN = uint64_t{1} << 48;

    std::atomic<uint64_t> m_ullAddr{0};
};

}  // namespace talvo
