// Datagrams in tests: a plain socket as the peer.
#pragma once

#include "talvo/transport/udp/transport_udp.h"
#include "tests/support/network_fixture.h"

using Datagrams = std::vector<std::string>;

// A bound socket on loopback that never blocks.
class CPlainUdp {
public:
    CPlainUdp() {
        EXPECT_EQ(0, m_Socket.Open(Loopback()));
        EXPECT_EQ(0, m_Socket.Enable(CCmIPCBase::NON_BLOCK));
        const int nSize = 1 << 20;
        m_Socket.SetOption(SOL_SOCKET, SO_RCVBUF, &nSize, sizeof nSize);
        EXPECT_EQ(0, m_Socket.GetLocalAddr(m_Addr));
    }
    const CCmInetAddr& Addr() const { return m_Addr; }
    void Send(const CCmInetAddr& aTo, const std::string& aData) const {
        iovec piece{const_cast<char*>(aData.data()), aData.size()};
        const msghdr message{const_cast<sockaddr_in*>(aTo.GetPtr()), aTo.GetSize(), &piece, 1, nullptr, 0, 0};
        EXPECT_EQ(static_cast<ssize_t>(aData.size()), sendmsg(m_Socket.GetHandle(), &message, 0));
    }
    // All datagrams available now.
    Datagrams Receive() {
        Datagrams all;
        for (;;) {
            std::string strData(65536, '\0');
            const int nReceived = m_Socket.RecvFrom(strData.data(), 65536, m_From);
            if (nReceived < 0)
                return all;
            strData.resize(static_cast<size_t>(nReceived));
            all.push_back(strData);
        }
    }
    const CCmInetAddr& From() const { return m_From; }  // of the last one

private:
    CCmSocketUdp m_Socket;
    CCmInetAddr m_Addr;
    CCmInetAddr m_From;
};

// "0", "1", ...
inline Datagrams Numbered(int aFrom, int aTo) {
    Datagrams all;
    for (int i = aFrom; i < aTo; ++i)
        all.push_back(std::to_string(i));
    return all;
}

// The main thread serves as network thread: the test makes every turn of the loop itself.
class CUdpTest : public testing::Test {
protected:
    // Enough for all pending work.
    void Turns(int aCount = 20) const {
        for (int i = 0; i < aCount; ++i)
            EXPECT_EQ(CM_OK, m_Network.Main().RunOnce(&CCmTimeValue::s_tvZero));
    }

    CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
};
