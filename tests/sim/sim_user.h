// Users of protocol connections in a simulation, and the promises of the connections to them.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "talvo/connection/connection_manager.h"
#include "talvo/testing/testing.h"

class CSimUser;

constexpr int64_t SIM_SEC = 1000000;  // times are in microseconds

// A client's connection and those that the server made for it: one, or over datagrams one after the other.
struct CSimLink {
    explicit CSimLink(WORD aPort) : m_Up(DWORD{aPort} << 16), m_Down(DWORD{aPort} << 16 | 0x8000) {}

    CCmSimFlow m_Up, m_Down;
    CSimUser* m_pClient = nullptr;
    CSimUser* m_pServer = nullptr;
    BOOL m_bOdd = FALSE;        // something was done that may end it with any reason
    BOOL m_bComplete = FALSE;   // the end that was asked for has left nothing unsent,
    int64_t m_llLingers = 0;    // or until when it goes out,
    BOOL m_bTold = FALSE;       // and was itself sent,
    CmResult m_Reason = CM_OK;  // with this reason for the peer
};

// The common part of all users. It also notes when the transports below last sent and received.
class CSimWorld : public ICmSimObserver {
public:
    static constexpr WORD PORT = 80;  // the server's
    struct CTicks {
        int64_t m_llSent, m_llReceived;  // in milliseconds of the library's clock
    };

    CSimWorld(CCmSimNetwork& aNetwork, DWORD aType);
    ~CSimWorld() override { m_Network.SetObserver(nullptr); }

    BOOL Is(DWORD aBits) const { return (m_dwType & aBits) != 0; }
    int64_t Now() const { return m_Network.Now().GetTotalInUsec(); }
    int64_t Tick() const { return Now() / 1000; }
    BOOL Chance(uint64_t aPercent) { return m_Network.Random(100) < aPercent; }
    DWORD Below(uint64_t aBound) { return static_cast<DWORD>(m_Network.Random(aBound)); }
    int64_t RandomTime(int64_t aBound) { return static_cast<int64_t>(m_Network.Random(static_cast<uint64_t>(aBound))); }
    void After(int64_t aDelay, std::function<void()> aRun) { m_Network.After(CCmTimeValue::FromUsec(aDelay), std::move(aRun)); }
    void RunFor(int64_t aTime) { m_Network.RunFor(CCmTimeValue::FromUsec(aTime)); }
    void AddUser(ICmTransport& aTransport, BOOL aServer);
    template <class Do>
    void ForAll(Do aDo) {
        for (size_t i = 0; i < m_Users.size(); ++i)  // aDo may add more
            aDo(*m_Users[i]);
    }

    void OnOpen(const CCmSimEnd& aEnd) override { TicksOf(aEnd) = {Tick(), Tick()}; }
    void OnSend(const CCmSimEnd& aEnd, const CCmMessageBlock& aData) override;
    void OnReceive(const CCmSimEnd& aEnd, const std::string&) override { TicksOf(aEnd).m_llReceived = Tick(); }
    void OnStep() override;
    CTicks& TicksOf(const CCmSimEnd& aEnd) { return m_Ticks[{aEnd.m_AddrLocal.GetPort(), aEnd.m_AddrPeer.GetPort()}]; }

    CCmSimNetwork& m_Network;
    const DWORD m_dwType;
    const BOOL m_bDatagrams, m_bPackage, m_bKeepAlive;
    BOOL m_bWild = TRUE;                              // users act at random
    std::map<WORD, CSimLink> m_Links;                 // by the client's port
    std::map<std::pair<WORD, WORD>, CTicks> m_Ticks;  // by the own port and the peer's
    std::vector<std::unique_ptr<CSimUser>> m_Users;
};

// One end of a connection, which acts at random.
class CSimUser final : public CCmSimWildPeer {
public:
    CSimUser(CSimWorld& aWorld, CSimLink& aLink, ICmTransport& aTransport, BOOL aServer, WORD aPort);

    void Start();
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    // Whether something was promised and has not come while the connection stands, in weather that was calm for long enough.
    void CheckDebts();

private:
    void OnOptionSet(DWORD aOption, DWORD aValue) override;
    void OnEnding(CmResult aReason) override;
    CSimWorld::CTicks& Ticks_i() const { return m_World.m_Ticks[{GetLocalAddr().GetPort(), GetPeerAddr().GetPort()}]; }
    void StartTimer_i(DWORD aSeconds);
    void Fired_i();
    BOOL IsPeerSilent_i() const;
    BOOL IsSilenceTheEnd_i() const;
    CSimUser* GetPeer_i() const { return m_bServer ? m_Link.m_pClient : m_Link.m_pServer; }

    CSimWorld& m_World;
    CSimLink& m_Link;
    const BOOL m_bServer;
    int64_t m_llUnpaused = 0;  // tick
    int64_t m_llTimer = -1;    // when its keep-alive timer was scheduled
    int64_t m_llInterval = 0;  // of that
};
