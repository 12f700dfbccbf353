#include "benchmarks/wan/tun_device.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "benchmarks/support/system.h"

namespace bench {

namespace {

constexpr const char* NAME = "talvo0";
// Packets between the namespace's sockets and this process: enough for any time in which this process does not run. Only the
// link's own queue drops packets.
constexpr int QUEUE_PACKETS = 100000;

ifreq Request(const char* aName) {
    ifreq request{};
    std::strncpy(request.ifr_name, aName, IFNAMSIZ - 1);
    return request;
}

void Control(int aFd, unsigned long aCommand, ifreq& aRequest, const char* aWhat) {
    if (ioctl(aFd, aCommand, &aRequest) != 0)
        Fail(aWhat);
}

void SetAddress(int aSocket, unsigned long aCommand, const char* aAddress) {
    ifreq request = Request(NAME);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    inet_pton(AF_INET, aAddress, &addr.sin_addr);
    std::memcpy(&request.ifr_addr, &addr, sizeof addr);
    Control(aSocket, aCommand, request, "address of the TUN device");
}

void SetUp(int aSocket, const char* aName) {
    ifreq request = Request(aName);
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    Control(aSocket, SIOCSIFFLAGS, request, "device up");
}

int OpenTun() {
    const int nFd = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (nFd < 0)
        Fail("/dev/net/tun");
    ifreq request = Request(NAME);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    Control(nFd, TUNSETIFF, request, "TUNSETIFF");
    return nFd;
}

}  // namespace

CTunDevice::CTunDevice(const char* aAddress, const char* aPeer) {
    if (unshare(CLONE_NEWNET) != 0)
        Fail("network namespace");
    m_nNamespaceFd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    m_nFd = OpenTun();
    const int nSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    SetAddress(nSocket, SIOCSIFADDR, aAddress);
    SetAddress(nSocket, SIOCSIFDSTADDR, aPeer);
    ifreq request = Request(NAME);
    request.ifr_mtu = static_cast<int>(MTU);
    Control(nSocket, SIOCSIFMTU, request, "MTU of the TUN device");
    request = Request(NAME);
    request.ifr_qlen = QUEUE_PACKETS;
    Control(nSocket, SIOCSIFTXQLEN, request, "queue of the TUN device");
    SetUp(nSocket, NAME);
    SetUp(nSocket, "lo");
    close(nSocket);
}

CTunDevice::~CTunDevice() {
    close(m_nFd);
    close(m_nNamespaceFd);
}

}  // namespace bench
