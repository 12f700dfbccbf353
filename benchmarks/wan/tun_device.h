// A network namespace with one end of a link.
#pragma once

#include <cstddef>

namespace bench {

// A namespace without a name, with a TUN device; both belong to this process. The system removes them with the last process
// that uses them. Needs root. Any failure ends the program.
class CTunDevice {
public:
    static constexpr size_t MTU = 1500;

    // Point to point, from one IPv4 address to the other. The calling thread enters the new namespace.
    CTunDevice(const char* aAddress, const char* aPeer);
    ~CTunDevice();
    CTunDevice(const CTunDevice&) = delete;
    CTunDevice& operator=(const CTunDevice&) = delete;

    // Non-blocking: a read returns one packet that the namespace sends; a write delivers one to it.
    int GetFd() const { return m_nFd; }
    // For setns(2).
    int GetNamespaceFd() const { return m_nNamespaceFd; }

private:
    int m_nFd;
    int m_nNamespaceFd;
};

}  // namespace bench
