#include "talvo/proxy/discovery/network_watch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "talvo/base/trace.h"

namespace talvo {

namespace {

const CCmTimeValue QUIET(2, 0);
constexpr int MOST_READS = 64;  // of one report

}  // namespace

CNetworkWatch::CNetworkWatch(ICmReactor& aReactor, INetworkWatchUser& aUser) : m_Reactor(aReactor), m_User(aUser) {
    if (Open_i())
        return;
    CM_WARNING_TRACE_THIS("CNetworkWatch::CNetworkWatch, changes of the network are not seen. errno=" << errno);
    Close_i();
}

CNetworkWatch::~CNetworkWatch() {
    m_Reactor.CancelTimer(this);
    Close_i();
}

BOOL CNetworkWatch::Open_i() {
    m_Fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    return m_Fd != CM_INVALID_HANDLE && bind(m_Fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
           m_Reactor.RegisterHandler(this, READ_MASK | DATAGRAM_MASK) == CM_OK;
}

void CNetworkWatch::Close_i() {
    if (m_Fd == CM_INVALID_HANDLE)
        return;
    m_Reactor.RemoveHandler(this, ALL_EVENTS_MASK);
    close(m_Fd);
    m_Fd = CM_INVALID_HANDLE;
}

// The content of the messages has no use: every one of them is a change. ENOBUFS stands for lost ones.
int CNetworkWatch::OnInput(HANDLE) {
    char buffer[8192];
    for (int i = 0; i < MOST_READS && (recv(m_Fd, buffer, sizeof buffer, 0) >= 0 || errno == ENOBUFS); ++i)
        OnMessages();
    return 0;
}

int CNetworkWatch::OnClose(HANDLE, long) {
    close(m_Fd);
    m_Fd = CM_INVALID_HANDLE;
    return 0;
}

void CNetworkWatch::OnMessages() { m_Reactor.ScheduleTimer(this, nullptr, QUIET, 1); }

void CNetworkWatch::OnTimeout(const CCmTimeValue&, void*) { m_User.OnNetworkChanged(); }

}  // namespace talvo
