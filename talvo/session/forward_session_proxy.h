// A forward session of the network thread, used from other threads.
#pragma once

#include <atomic>
#include <vector>

#include "talvo/base/mutex.h"
#include "talvo/session/forward_core.h"
#include "talvo/session/forward_handle.h"
#include "talvo/transport/thread_proxy/proxy_core.h"

namespace talvo {

// Messages from the users' threads that wait for the network thread, at most 1 MiB and one message. Any thread.
class CForwardQueue {
public:
    static constexpr DWORD LIMIT = 1 << 20;
    static constexpr DWORD MESSAGE_COST = 128;      // besides its payload
    static constexpr DWORD WAKE_BYTES = 32 * 1024;  // so many do not wait for the end of the caller's event

    // CM_ERROR_PARTIAL_DATA: full. CM_ERROR_OUT_OF_MEMORY. aWake (out): wake the network thread now.
    CmResult Push(const CCmMessageBlock& aData, DWORD aLength, const CCmForwardHeader* aHeader, BOOL& aWake);
    // See CForwardPacker.
    void SetFraming(EForwardFraming aFraming);
    // Moves all messages to the empty aMessages. FALSE: there are none.
    BOOL Take(std::vector<CForwardMessage>& aMessages);
    // Messages of that cost are forwarded. TRUE: a push was refused before, and there is room again.
    BOOL Taken(uint64_t aCost);

private:
    CCmMutexThread m_Mutex;
    CForwardPacker m_Packer CM_GUARDED_BY(m_Mutex);
    std::vector<CForwardMessage> m_Messages CM_GUARDED_BY(m_Mutex);
    uint64_t m_ullWaiting CM_GUARDED_BY(m_Mutex) = 0;
    DWORD m_dwQuiet CM_GUARDED_BY(m_Mutex) = 0;
    BOOL m_bRefused CM_GUARDED_BY(m_Mutex) = FALSE;
};

// An upcall that is due in the user's thread.
struct CForwardUpcall {
    DWORD m_dwId = 0;
    BOOL m_bJoins = FALSE;      // OnJoin; else OnReceiver
    CmResult m_Reason = CM_OK;  // of OnReceiver
};

// Those upcalls. Any thread.
class CForwardUpcalls {
public:
    // Add needs no memory for aCount more. FALSE: memory ran out.
    BOOL Reserve(DWORD aCount);
    void Add(const CForwardUpcall& aUpcall);
    size_t GetCount();
    // The oldest one; there must be one. Id 0: no upcall.
    CForwardUpcall Take();
    // Those of this receiver are not due any more.
    void Drop(DWORD aId);

private:
    CCmMutexThread m_Mutex;
    std::vector<CForwardUpcall> m_Upcalls CM_GUARDED_BY(m_Mutex);  // those before m_stTaken are taken
    size_t m_stTaken CM_GUARDED_BY(m_Mutex) = 0;
};

//  users' threads                     this object                network thread
//
//  Forward ------- pack ------> [queue, bytes bounded] -- drain --> CForwardCore
//  upcalls <------------------------ events -------------------- its upcalls
//
// One event in flight brings any number of messages. A message is copied or duplicated once, by the caller of Forward.
class TALVO_API CForwardProxyCore final : public CProxyCore, public ICmForwardSink {
public:
    CForwardProxyCore(ICmForwardSink& aSink, CCmThreadLink& aUser, CCmThreadLink& aNetwork);
    ~CForwardProxyCore() override;

    // In the network thread.
    CmResult Open_i();

    // Any thread, see ICmForwardSession.
    CmResult AddReceiver(ICmTransport* aTransport, const CCmForwardReceiverOptions& aOptions, DWORD& aId);
    CmResult RemoveReceiver(DWORD aId, CmResult aReason);
    CmResult Forward(CCmMessageBlock& aData, const CCmForwardHeader* aHeader);
    CmResult SetOption(DWORD aCommand, void* aArg);
    CmResult GetStatistics(CCmForwardStatistics& aStatistics, DWORD aId);
    CCmString Dump();
    CmResult Close(CmResult aReason);
    void Abandon() override;

    // From the core, in the network thread.
    void OnReceiver(DWORD aId, CmResult aReason) override { PostUpcall_i({aId, FALSE, aReason}); }
    void OnForward() override { Drain_i(); }
    void OnJoin(DWORD aId) override { PostUpcall_i({aId, TRUE, CM_OK}); }
    void OnThreadEnd() override;

private:
    template <class Use>
    CmResult Call_i(Use aUse);
    BOOL IsTooLong_i(DWORD aLength);
    void NoteReceivers_i();
    void Drain_i();
    void DrainAll_i();
    void End_i(CmResult aReason);
    void EndAbandoned_i();
    void PostUpcall_i(const CForwardUpcall& aUpcall);
    void MakeUpcalls_i();
    void MakeUpcall_i(ICmForwardSink& aSink, const CForwardUpcall& aUpcall);
    void ReportRoom_i();

    std::atomic<ICmForwardSink*> m_pSink;  // not owned; null: no more upcalls
    std::atomic<DWORD> m_dwMaxMessage{0};
    std::atomic<BOOL> m_bClosed{FALSE};
    CForwardQueue m_Queue;
    CForwardUpcalls m_Upcalls;
    CEmbeddedEventT<CForwardProxyCore, &CForwardProxyCore::Drain_i> m_DrainEvent{*this};
    CEmbeddedEventT<CForwardProxyCore, &CForwardProxyCore::EndAbandoned_i> m_EndEvent{*this};
    CEmbeddedEventT<CForwardProxyCore, &CForwardProxyCore::ReportRoom_i> m_RoomEvent{*this};
    CEmbeddedEventT<CForwardProxyCore, &CForwardProxyCore::MakeUpcalls_i> m_UpcallEvent{*this};

    // Network thread only.
    CCmRefPtrT<CForwardCore> m_pCore;         // null: closed
    CCmForwardStatistics m_Last;              // the sum when it was closed
    std::vector<CForwardMessage> m_Messages;  // from m_stNext on: taken from the queue and not forwarded
    size_t m_stNext = 0;
};

class TALVO_API CForwardSessionProxy final : public CForwardHandleT<CThreadProxyT<ICmForwardSession, CForwardProxyCore>> {
public:
    static CmResult Make(ICmForwardSink& aSink, CCmThreadLink& aUser, CCmThreadLink& aNetwork, ICmForwardSession*& aSession);

private:
    friend class CThreadProxyT<ICmForwardSession, CForwardProxyCore>;
    using CForwardHandleT::CForwardHandleT;
};

}  // namespace talvo
