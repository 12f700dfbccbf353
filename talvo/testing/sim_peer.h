// One end of a connection that sends numbered messages and checks the contract between a transport and its sink.
#pragma once

#include <map>
#include <string>

#include "talvo/base/inet_addr.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/testing/sim_network.h"
#include "talvo/transport/transport_interface.h"

// The messages of one direction of a connection. Each has a number; its bytes follow from the number and the length.
class CCmSimFlow {
public:
    // Numbers begin behind aBefore. Messages that reach a wrong connection are found if the flows use different numbers.
    explicit CCmSimFlow(CmDword aBefore = 0) : m_dwLastSent(aBefore), m_dwLastArrived(aBefore) {}

    // Begins with the number, the lowest byte first, as far as the length allows.
    static std::string TextOf(CmDword aNumber, CmDword aLength);

    CmDword NewNumber() { return ++m_dwLastSent; }  // the number of the next message
    // SendData took the message. Empty messages are not counted.
    void OnTaken(CmDword aNumber, CmDword aLength);
    // FALSE: aText is no message that was taken, or, over a stream, not the one behind the last that arrived.
    CmBool OnArrived(const std::string& aText, CmBool aDatagrams);
    // Whether a message behind the last that arrived was taken.
    CmBool IsMissing() const { return m_Taken.upper_bound(m_dwLastArrived) != m_Taken.end(); }

private:
    std::map<CmDword, CmDword> m_Taken;  // number and length
    CmDword m_dwLastSent;
    CmDword m_dwLastArrived;
};

// For connections that keep messages apart: protocol connections and datagrams, not raw streams. These are failures of the
// network:
// - an arriving message that the other end has not sent, that was changed, or that is out of turn in a stream;
// - a SendData that takes a part of a message, or whose result contradicts CM_OPT_TRANSPORT_MAX_MESSAGE;
// - an upcall after OnDisconnect or after this end has ended the connection;
// - in CheckStep: an OnDisconnect or OnSend that is due and that no transport will bring.
//
// Used in the simulation's thread. Derived classes may override the upcalls; they call the ones of this class first, and may
// then do everything that a sink may.
class CCmSimPeer : public ICmTransportSink {
public:
    // The transport is indicated and not open yet. The flows are not owned; the peer of this end has them in reverse.
    CCmSimPeer(CCmSimNetwork& aNetwork, ICmTransport& aTransport, CCmSimFlow& aOut, CCmSimFlow& aIn, std::string aName);

    // Begins, as the transport's sink.
    void Open();
    // Sends a new message of that length. The results of SendData; CM_ERROR_NOT_AVAILABLE when the connection has ended.
    CmResult Send(CmDword aLength);
    // Ends the connection with Disconnect, or, without a reason, by releasing the transport.
    void End(CmResult aReason);
    void Release();

    CmBool IsOpen() const { return m_bOpen; }          // neither end has ended it, as far as this end has been notified
    CmBool IsOwedSend() const { return m_bOwedSend; }  // a send was refused, and OnSend has not come
    // Call it in ICmSimObserver::OnStep.
    void CheckStep();

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

protected:
    // This end is about to end the open connection; CM_OK: with Release or in order.
    virtual void OnEnding(CmResult) {}

    CCmSimNetwork& GetNetwork() const { return m_Network; }
    ICmTransport* GetTransport() const { return m_pTransport.Get(); }  // null after Release
    const CCmInetAddr& GetLocalAddr() const { return m_AddrLocal; }
    const CCmInetAddr& GetPeerAddr() const { return m_AddrPeer; }
    // The end of the simulated link below the connection; null: it is closed.
    const CCmSimEnd* FindBelow() const { return m_Network.FindEnd(m_AddrLocal, m_AddrPeer); }

    // The messages of the other end, and the kind of connection.
    const CCmSimFlow& GetIncoming() const { return m_In; }
    CmBool IsDatagrams() const { return m_bDatagrams; }
    // A line of the trace, and a failure of the network, with the name of this end.
    void Note(const std::string& aText);
    void Fail(const std::string& aText);

private:
    void Ending_i(CmResult aReason);
    void Upcall_i(const char* aName);

    CCmSimNetwork& m_Network;
    CCmRefPtrT<ICmTransport> m_pTransport;
    CCmSimFlow& m_Out;
    CCmSimFlow& m_In;
    const std::string m_strName;
    CCmInetAddr m_AddrLocal;
    CCmInetAddr m_AddrPeer;
    CmBool m_bDatagrams = CM_FALSE;
    CmBool m_bOpen = CM_TRUE;
    CmBool m_bOwedSend = CM_FALSE;
};
