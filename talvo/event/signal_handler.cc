#include "talvo/event/signal_handler.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <new>

#include "talvo/base/trace.h"
#include "talvo/event/home_reactor.h"
#include "talvo/event/signal_blocks.h"

ICmSignalSink::~ICmSignalSink() = default;

namespace talvo {

namespace {

// The signals of all open handlers.
std::atomic<uint64_t> s_ullTaken{0};

BOOL Take(uint64_t aSignals) {
    uint64_t ullTaken = s_ullTaken;
    do {
        if (ullTaken & aSignals)
            return FALSE;
    } while (!s_ullTaken.compare_exchange_weak(ullTaken, ullTaken | aSignals));
    return TRUE;
}

}  // namespace

// The descriptor in its reactor. As an event it carries its own deletion to the reactor's thread.
class CSignalWatch final : public ACmEventHandler, public ICmEvent {
public:
    CSignalWatch(ICmReactor* aReactor, const CSignalSet& aSignals, ICmSignalSink* aSink)
        : m_Reactor(aReactor), m_ullSignals(aSignals.GetBits()), m_pSink(aSink) {
        m_nFd = signalfd(-1, &aSignals.Get(), SFD_NONBLOCK | SFD_CLOEXEC);
    }
    ~CSignalWatch() override {
        if (m_nFd != CM_INVALID_HANDLE)
            close(m_nFd);
        s_ullTaken &= ~m_ullSignals;
    }
    HANDLE GetHandle() const override { return m_nFd; }

    CmResult Register() { return m_Reactor->RegisterHandler(this, READ_MASK); }
    // CM_ERROR_FAILURE: the reactor refuses the calling thread.
    CmResult Unregister() {
        return m_Reactor->RemoveHandler(this, ALL_EVENTS_MASK) == CM_ERROR_FAILURE ? CM_ERROR_FAILURE : CM_OK;
    }
    // Deletes this object in the reactor's thread, or here if the reactor has ended.
    void DeleteLater() {
        m_pSink = nullptr;
        m_Reactor->PostEvent(this);
    }

private:
    // The loop calls again until the descriptor is empty. The sink may delete this object.
    int OnInput(HANDLE) override {
        ICmSignalSink* pSink = m_pSink;
        signalfd_siginfo info{};
        if (!pSink || read(m_nFd, &info, sizeof info) != sizeof info)
            return -2;
        pSink->OnSignal(static_cast<int>(info.ssi_signo));
        return 0;
    }
    int OnClose(HANDLE, long) override { return 0; }

    CmResult OnEventFire() override { return Unregister(); }
    void OnDestorySelf() override { delete this; }

    const CHomeReactor m_Reactor;
    const uint64_t m_ullSignals;
    std::atomic<ICmSignalSink*> m_pSink;  // not owned; null: the handler was destroyed in another thread
    HANDLE m_nFd = CM_INVALID_HANDLE;
};

}  // namespace talvo

using talvo::CSignalSet;
using talvo::CSignalWatch;

CCmSignalHandler::CCmSignalHandler() = default;

CCmSignalHandler::~CCmSignalHandler() {
    if (Close() != CM_OK)
        m_pWatch.release()->DeleteLater();
}

CmResult CCmSignalHandler::Block(std::span<const int> aSignals) {
    CSignalSet signals;
    if (!signals.Set(aSignals))
        return CM_ERROR_INVALID_ARG;
    pthread_sigmask(SIG_BLOCK, &signals.Get(), nullptr);
    return talvo::EveryThreadBlocks(signals) ? CM_OK : CM_ERROR_NOT_AVAILABLE;
}

CmResult CCmSignalHandler::Open(ICmReactor* aReactor, std::span<const int> aSignals, ICmSignalSink* aSink) {
    CSignalSet signals;
    if (!aReactor || !aSink || !signals.Set(aSignals))
        return CM_ERROR_INVALID_ARG;
    if (m_pWatch)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (!talvo::Take(signals.GetBits()))
        return CM_ERROR_FOUND;
    std::unique_ptr<CSignalWatch> pWatch(new (std::nothrow) CSignalWatch(aReactor, signals, aSink));
    if (!pWatch) {
        talvo::s_ullTaken &= ~signals.GetBits();
        return CM_ERROR_OUT_OF_MEMORY;
    }
    if (pWatch->GetHandle() == CM_INVALID_HANDLE) {
        CM_ERROR_TRACE_THIS("CCmSignalHandler::Open, signalfd() failed! err=" << errno);
        return CM_ERROR_UNEXPECTED;
    }
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &signals.Get(), &before);
    const CmResult rv = talvo::EveryThreadBlocks(signals) ? pWatch->Register() : CM_ERROR_NOT_AVAILABLE;
    if (rv == CM_OK)
        m_pWatch = std::move(pWatch);
    else
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return rv;
}

CmResult CCmSignalHandler::Close() {
    if (!m_pWatch)
        return CM_OK;
    const CmResult rv = m_pWatch->Unregister();
    if (rv == CM_OK)
        m_pWatch.reset();
    return rv;
}
