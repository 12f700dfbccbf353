// Users of protocol connections in a simulation, and what they may rely on.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "talvo/base/ref_ptr.h"
#include "talvo/transport/transport_interface.h"
#include "tests/sim/sim_lab.h"
#include "tests/sim/sim_watch.h"

class CSimUser;

// What one scenario is about.
struct CSimKind {
    CCmRefPtrT<ICmConnector> MakeConnector() const;
    CCmRefPtrT<ICmAcceptor> MakeAcceptor() const;

    const char* m_szName;
    DWORD m_dwType;
    BOOL m_bDatagrams;
    BOOL m_bKeepAlive;
    BOOL m_bTellsReason;  // a disconnect PDU tells the peer why
    BOOL m_bPackage;      // there is a handshake, and a silent peer is dropped
};

// Messages in one direction of a link, by number; those that SendData took.
struct CSimFlow {
    std::map<DWORD, DWORD> m_Taken;  // number and length
    DWORD m_dwLast = 0;              // the last one that arrived
};

// A client's connection and those that the server made for it: one, or over datagrams one after the other.
struct CSimLink {
    CSimFlow m_Up;
    CSimFlow m_Down;
    CSimUser* m_pClient = nullptr;
    CSimUser* m_pServer = nullptr;
    BOOL m_bOdd = FALSE;        // something was done that may end it with any reason
    BOOL m_bComplete = FALSE;   // the end that was asked for has left nothing unsent,
    int64_t m_llLingers = 0;    // or until when it goes out,
    BOOL m_bTold = FALSE;       // and was itself sent,
    CmResult m_Reason = CM_OK;  // with this reason for the peer
};

struct CSimWorld {
    static constexpr WORD PORT = 80;  // the server's

    CSimLab& m_Network;
    const CSimKind& m_Kind;
    BOOL m_bWild = TRUE;  // users do what they like
    DWORD m_dwMessages = 0;
    std::map<WORD, CSimLink> m_Links{};  // by the client's port
    CSimWatch m_Watch{m_Network, m_Kind.m_bDatagrams, m_Kind.m_bPackage};
};

// One end of a connection. Sends, checks what arrives, and in its wild time does everything that a user may do, above all
// inside the upcalls.
class CSimUser final : public ICmTransportSink {
public:
    CSimUser(CSimWorld& aWorld, ICmTransport& aConn, BOOL aServer);

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

    // One thing that comes to its mind, and the next one after a while.
    void Live();
    // Its last word: what was held back may go now.
    void Settle();
    // With a disconnect, or by letting go of the connection.
    void End(CmResult aReason, BOOL aRelease);
    // What has to hold whenever nothing is under way: while the connection stands, something stands below it, and will wake it
    // when a send was refused.
    void CheckStanding();
    // Whether something was promised and has not come while the connection stands, in weather that was calm for long enough.
    void CheckDebts();
    // One message more, to see that both ends mean the same connection.
    void Ping() { Send_i(MIN_LENGTH); }

private:
    static constexpr DWORD MIN_LENGTH = 4;  // holds a number

    void Upcall_i(const char* aWhat);
    void Feel_i(uint64_t aPercent);
    void Act_i();
    void Send_i(DWORD aLength);
    void SendMany_i(BOOL aCorked);
    void Set_i(DWORD aOption, DWORD aValue);
    void ChangeOption_i();
    void NoteEnd_i(CmResult aReason);
    void CheckMessage_i(CCmMessageBlock& aData);
    void Fail_i(const std::string& aText);
    CSimFlow& Out_i() { return m_bServer ? m_Link.m_Down : m_Link.m_Up; }
    BOOL IsMissing_i() const;
    DWORD KeyBelow_i() const;
    const CCmSimEnd* FindBelow_i() const { return m_Network.m_Network.FindEnd(m_AddrOwn, m_AddrPeer); }
    void StartTimer_i(DWORD aSeconds);
    void Fired_i();
    BOOL IsPeerSilent_i() const;
    BOOL IsSilenceTheEnd_i() const;
    CSimUser* GetPeer_i() const { return m_bServer ? m_Link.m_pClient : m_Link.m_pServer; }
    CSimFlow& In_i() const { return m_bServer ? m_Link.m_Up : m_Link.m_Down; }

    CSimWorld& m_World;
    CSimLab& m_Network;
    CCmRefPtrT<ICmTransport> m_pConn;
    const BOOL m_bServer;
    CCmInetAddr m_AddrOwn, m_AddrPeer;
    WORD m_wPort = 0;  // the client's
    CSimLink& m_Link;
    BOOL m_bOpen = TRUE;
    BOOL m_bOwedOnSend = FALSE;
    BOOL m_bPaused = FALSE;
    BOOL m_bShy = FALSE;       // never acts of itself
    int64_t m_llUnpaused = 0;  // tick
    int64_t m_llTimer = -1;    // when its keep-alive timer was scheduled
    int64_t m_llInterval = 0;  // of that
    int m_nDepth = 0;          // of deeds inside deeds
};
