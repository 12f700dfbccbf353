// What passes between package connections and the transports below them: is it sent, answered and ended when it has to be?
#pragma once

#include <map>
#include <string>

#include "tests/sim/sim_lab.h"

// Breaches are failures of the network.
class CSimWatch final : public ICmSimObserver {
public:
    // aHandshake: a client asks, and the server answers.
    CSimWatch(CSimLab& aNetwork, BOOL aDatagrams, BOOL aHandshake)
        : m_Network(aNetwork), m_bDatagrams(aDatagrams), m_bHandshake(aHandshake) {}

    void OnOpen(const CCmSimEnd& aEnd) override;
    void OnSend(const CCmSimEnd& aEnd, const std::string& aBytes) override;
    void OnReceive(const CCmSimEnd& aEnd, const std::string& aBytes) override;
    void OnReceived(const CCmSimEnd& aEnd, const std::string& aBytes) override;
    void OnClose(const CCmSimEnd& aEnd, BOOL aByOwner) override;
    void OnStopListen(const CCmInetAddr&) override { m_llStopped = m_Network.Now(); }
    void OnStep() override { m_Settled(); }

    std::function<void()> m_Settled = [] {};  // everything that was due has been done
    // The own port and, in the lower half, the peer's.
    static DWORD KeyOf(WORD aPort, WORD aPeerPort) { return DWORD{aPort} << 16 | aPeerPort; }

    // In milliseconds of the library's clock; of the end that opened last under the key.
    int64_t LastSent(DWORD aKey) { return m_Ends[aKey].m_llSentTick; }
    int64_t LastReceived(DWORD aKey) { return m_Ends[aKey].m_llReceivedTick; }

private:
    struct CEnd {
        BOOL m_bOpen = FALSE;
        int64_t m_llOpened = 0;
        int64_t m_llSentTick = 0;
        int64_t m_llReceivedTick = 0;
        size_t m_stRequests = 0;   // moments at which a client has sent its request
        int64_t m_llRequest = -1;  // the last one
        int64_t m_llResponse = -1;
        size_t m_stReceived = 0;  // bytes; over datagrams only those of responses
    };

    static DWORD KeyOf(const CCmSimEnd& aEnd) { return KeyOf(aEnd.m_AddrLocal.GetPort(), aEnd.m_AddrPeer.GetPort()); }
    static BOOL IsServer(DWORD aKey) { return aKey >> 16 < 1024; }
    CEnd* Find_i(DWORD aKey);
    void Fail_i(DWORD aKey, const std::string& aText);
    void SentRequest_i(DWORD aKey, CEnd& aEnd);
    void CheckRequests_i(DWORD aKey, const CEnd& aEnd);
    void CheckRelease_i(DWORD aKey, int64_t aOpened);

    CSimLab& m_Network;
    const BOOL m_bDatagrams;
    const BOOL m_bHandshake;
    int64_t m_llStopped = -1;  // when a listener did
    std::map<DWORD, CEnd> m_Ends;
};
