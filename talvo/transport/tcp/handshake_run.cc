#include "talvo/transport/tcp/handshake_run.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/would_block.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CHandshakeRun");

constexpr const char* VERB = "shake hands with";

}  // namespace

CCmRefPtrT<CCmTransportTcp> IHandshakeMaker::MakeTransport(ICmReactor* aReactor) {
    return new (std::nothrow) CCmTransportTcp(aReactor);
}

CCmTimeValue IHandshakeMaker::GetTimeLimit() const { return CCmTimeValue(10); }

DWORD IHandshakeMaker::GetMostInFlight() const { return 1024; }

CCmRefPtrT<CCmTransportTcp> MakeTcpTransport(ICmReactor* aReactor, IHandshakeMaker* aMaker) {
    CCmRefPtrT<CCmTransportTcp> pTransport;
    if (aMaker)
        WithMemory([&] { pTransport = aMaker->MakeTransport(aReactor); });
    else
        pTransport = new (std::nothrow) CCmTransportTcp(aReactor);
    return pTransport;
}

CHandshakeRun::CHandshakeRun(ICmReactor* aReactor, IOwner& aOwner, IHandshakeMaker& aMaker,
                             CCmRefPtrT<CCmTransportTcp> aTransport)
    : m_pReactor(aReactor), m_Owner(aOwner), m_Maker(aMaker), m_pTransport(std::move(aTransport)) {
    ++s_Live;
}

CHandshakeRun::~CHandshakeRun() {
    StopTimer_i();
    Unwatch_i();
    --s_Live;
}

BOOL CHandshakeRun::Start() {
    if (GoOn_i())
        return TRUE;
    const CCmTimeValue tvLimit = m_Maker.GetTimeLimit();
    if (tvLimit == CCmTimeValue::s_tvZero)
        return FALSE;
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, tvLimit, 1);
    m_bTimer = rv == CM_OK || rv == CM_ERROR_FOUND;
    return m_bTimer ? FALSE : Over_i(CCmFailure(ENOMEM, VERB, GetPeerAddr()));
}

// TRUE: the run has ended.
BOOL CHandshakeRun::GoOn_i() {
    IHandshake::EStep step = IHandshake::FAILED;
    if (!WithMemory([&] { step = Step_i(); }))
        return Over_i(CCmFailure(ENOMEM, VERB, GetPeerAddr()));
    switch (step) {
    case IHandshake::READ:
    case IHandshake::WRITE:
        return Wait_i(step);
    case IHandshake::DONE:
        return Over_i({});
    case IHandshake::FAILED:
        break;
    }
    return Failed_i(0);
}

// DONE: there is no further handshake.
IHandshake::EStep CHandshakeRun::Step_i() {
    if (!m_pHandshake)
        m_pHandshake = m_Maker.MakeHandshake(*m_pTransport, m_dwStep);
    while (m_pHandshake) {
        const IHandshake::EStep step = m_pHandshake->Step(*m_pTransport);
        if (step != IHandshake::DONE)
            return step;
        m_pHandshake = m_Maker.MakeHandshake(*m_pTransport, ++m_dwStep);
    }
    return IHandshake::DONE;
}

// FALSE unless the reactor refuses the socket.
BOOL CHandshakeRun::Wait_i(IHandshake::EStep aStep) {
    const CmResult rv = m_pReactor->RegisterHandler(this, aStep == IHandshake::WRITE ? READ_MASK | WRITE_MASK : READ_MASK);
    m_bWatched = m_bWatched || rv == CM_OK || rv == CM_ERROR_FOUND;
    if (rv == CM_OK || rv == CM_ERROR_FOUND)
        return FALSE;
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        return Over_i(CCmFailure(ENOMEM, VERB, GetPeerAddr()));
    return Over_i(CCmFailure(CM_FAILURE_LOCAL, "the reactor refuses the socket", VERB, GetPeerAddr()));
}

HANDLE CHandshakeRun::GetHandle() const { return m_pTransport->GetHandle(); }

int CHandshakeRun::OnInput(HANDLE) {
    m_Owner.OnHandshakeInput();
    return Ready_i();
}

int CHandshakeRun::OnOutput(HANDLE) { return Ready_i(); }

int CHandshakeRun::Ready_i() {
    if (!GoOn_i())
        return WOULD_BLOCK;
    m_Owner.OnHandshakeDone(*this);  // last: the owner deletes this run
    return 0;
}

// The reactor has removed the handler.
int CHandshakeRun::OnClose(HANDLE, long) {
    m_bWatched = FALSE;
    int nError = 0;
    int nLength = sizeof nError;
    m_pTransport->GetPeer().GetOption(SOL_SOCKET, SO_ERROR, &nError, &nLength);
    Failed_i(nError);
    m_Owner.OnHandshakeDone(*this);  // last, as above
    return 0;
}

void CHandshakeRun::OnTimeout(const CCmTimeValue&, void*) {
    m_bTimer = FALSE;
    Over_i(CCmFailure(CM_FAILURE_TIMEOUT, "the time for the handshake has passed", VERB, GetPeerAddr()));
    m_Owner.OnHandshakeDone(*this);  // last, as above
}

BOOL CHandshakeRun::Over_i(const CCmFailure& aFailure) {
    StopTimer_i();
    m_Failure = aFailure;
    if (m_Failure)
        Unwatch_i();
    else
        m_Reason = CM_OK;
    m_pHandshake.reset();
    return TRUE;
}

// aError: of the socket; 0: the handshake has failed, or the peer has closed.
BOOL CHandshakeRun::Failed_i(int aError) {
    if (m_pHandshake)
        m_Reason = m_pHandshake->GetReason();
    return Over_i(aError != 0 ? CCmFailure(aError, VERB, GetPeerAddr()) : NotedFailure_i());
}

CCmFailure CHandshakeRun::NotedFailure_i() {
    CCmFailure failure;
    if (m_pHandshake)
        failure = m_pHandshake->GetFailure(GetPeerAddr());
    if (!failure)
        m_pTransport->GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure);
    if (!failure)
        failure = CCmFailure(CM_FAILURE_PROTOCOL, "the peer has closed during the handshake", VERB, GetPeerAddr());
    return failure;
}

CCmInetAddr CHandshakeRun::GetPeerAddr() const {
    CCmInetAddr addrPeer;
    m_pTransport->GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &addrPeer);
    return addrPeer;
}

void CHandshakeRun::StopTimer_i() {
    if (std::exchange(m_bTimer, FALSE))
        m_pReactor->CancelTimer(this);
}

// An open transport has taken the watch over. The socket of a closed one has none.
void CHandshakeRun::Unwatch_i() {
    if (std::exchange(m_bWatched, FALSE) && !m_pTransport->IsOpen())
        m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
}

}  // namespace talvo
