// Transports, connectors and acceptors of a simulated network, as a protocol connection finds them below itself.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include "talvo/base/ref_ptr.h"
#include "talvo/event/timer_delete.h"
#include "talvo/transport/transport_interface.h"
#include "tests/sim/sim_network.h"

// One end of a stream, or of a flow of datagrams. Keeps the contract of the transports over sockets: all upcalls come from the
// network's events, what OnReceive hands up is gone afterwards, a send takes at most 64 pieces.
class CSimTransport : public ICmTransport, public CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    CSimTransport(CSimNetwork& aNetwork, BOOL aDatagrams, WORD aPort, WORD aPeerPort);
    ~CSimTransport() override;

    DWORD AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlTimerDeleteT::ReleaseReference(); }
    CmResult OpenWithSink(ICmTransportSink* aSink) override;
    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;
    CmResult Disconnect(CmResult aReason) override;

    // From the network: bytes, or a datagram.
    void Arrive(std::string aBytes);

    static DWORD KeyOf(WORD aPort, WORD aPeerPort) { return DWORD{aPort} << 16 | aPeerPort; }
    // Whether an upcall comes without anybody doing anything more.
    BOOL OwesUpcall() const { return m_bNeedOnSend || m_bBroken; }
    static CSimTransport* Find(CSimNetwork& aNetwork, DWORD aKey);

protected:
    void OnReferenceDestory() override;

private:
    DWORD GetKey_i() const { return KeyOf(m_wPort, m_wPeerPort); }
    DWORD GetPeerKey_i() const { return KeyOf(m_wPeerPort, m_wPort); }
    void After_i(int64_t aDelay, DWORD aKey, void (CSimTransport::*aRun)());
    void SendStream_i(const std::string& aBytes);
    void SendDatagram_i(const std::string& aBytes);
    std::string Mangle_i(std::string aBytes);
    std::string TakeReady_i();
    void ScheduleDelivery_i();
    void Deliver_i();
    void TellRoom_i();
    void ArriveEnd_i();
    void Break_i();
    void End_i();
    void Close_i();

    CSimNetwork& m_Network;
    const BOOL m_bDatagrams;
    const WORD m_wPort;
    const WORD m_wPeerPort;
    ICmTransportSink* m_pSink = nullptr;
    BOOL m_bClosed = FALSE;
    BOOL m_bBroken = FALSE;
    BOOL m_bPaused = FALSE;
    BOOL m_bNeedOnSend = FALSE;
    BOOL m_bDeliveryDue = FALSE;
    BOOL m_bEndArrived = FALSE;
    DWORD m_dwOnTheWay = 0;           // bytes taken that the peer has not read; a stream's
    int64_t m_llLastArrival = 0;      // of what was sent; a stream keeps its order
    std::deque<std::string> m_Ready;  // not handed up yet
};

class CSimAcceptor : public ICmAcceptor, public CCmReferenceControlT<CCmMutexNullSingleThread> {
public:
    explicit CSimAcceptor(CSimNetwork& aNetwork) : m_Network(aNetwork) {}
    ~CSimAcceptor() override { CSimAcceptor::StopListen(CM_OK); }

    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }
    BOOL IsConnector() override { return FALSE; }
    CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) override;
    CmResult StopListen(CmResult aReason) override;

    // A new peer; aFirst is its datagram.
    void Accept(const CCmRefPtrT<CSimTransport>& aTransport, const std::string& aFirst = std::string());

private:
    CSimNetwork& m_Network;
    ICmAcceptorConnectorSink* m_pSink = nullptr;
    WORD m_wPort = 0;
};

class CSimConnector : public ICmConnector, public CCmReferenceControlT<CCmMutexNullSingleThread> {
public:
    CSimConnector(CSimNetwork& aNetwork, BOOL aDatagrams) : m_Network(aNetwork), m_bDatagrams(aDatagrams) {}
    ~CSimConnector() override { CSimConnector::CancelConnect(); }

    DWORD AddReference() override { return CCmReferenceControlT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlT::ReleaseReference(); }
    BOOL IsConnector() override { return TRUE; }
    void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue*, CCmInetAddr*) override;
    void CancelConnect() override { m_pAttempt.reset(); }

private:
    struct CAttempt {
        ICmAcceptorConnectorSink* m_pSink;
        WORD m_wPort;
    };

    void Finish_i();
    void Answer_i(WORD aPort, WORD aPeerPort);

    CSimNetwork& m_Network;
    const BOOL m_bDatagrams;
    std::shared_ptr<CAttempt> m_pAttempt;  // while it runs
};
