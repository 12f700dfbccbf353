// The common core of the connectors' and the acceptors' proxies.
#pragma once

#include <atomic>
#include <utility>

#include "talvo/base/with_memory.h"
#include "talvo/transport/connect_options.h"
#include "talvo/transport/option_values.h"
#include "talvo/transport/thread_proxy/transport_thread_proxy.h"

namespace talvo {

// Inner, a connector or an acceptor, is the object in the network thread. A factory makes it at first use. It is hosted from
// then on until the user releases it or that thread ends.
//
// Each request of the user has a number. An indication for another request than the current one is dropped. A request is
// current as long as there is a sink: a connector's until its one indication, an acceptor's until it is stopped.
template <class Inner>
class CIndicatingProxyCoreT : public CProxyCore, public ICmAcceptorConnectorSink {
public:
    // Makes the object behind a proxy, in the network thread. aInner (out): with one reference for the caller.
    using Factory = CmResult (*)(CmDword aType, Inner*& aInner);

    void SetProxy(ICmAcceptorConnectorId* aProxy) { m_pProxy = aProxy; }
    void Abandon() override {
        End();
        PostLetGo();
    }

    // From the connector or acceptor, in the network thread.
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        CCmRefPtrT<ICmTransport> pProxy;
        if (aTrpt)
            pProxy = CCmTransportThreadProxy::Make(aTrpt, GetUser(), GetNetwork(), GetIndicatedType_i());
        if (aTrpt && !pProxy) {
            aReason = CM_ERROR_OUT_OF_MEMORY;
            if (!m_bOnce)
                return;  // an acceptor indicates no failure; the connection closes
        }
        PostIndication(m_bOnce ? std::exchange(m_dwRunning, 0) : m_dwRunning, aReason, std::move(pProxy),
                       aReason == CM_OK ? CCmFailure() : GetConnectFailure(m_pInner.Get()));
    }
    void OnThreadEnd() override { LetGo_i(); }

    // Any thread. Of the last request that was started.
    CCmFailure GetFailure() {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        return m_Failure;
    }
    // Any thread. Copies the value, and passes it on when the next request begins.
    CmResult SetOption(CmDword aCommand, const void* aArg) {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        return m_Options.Set(aCommand, aArg);
    }
    CmResult GetOption(CmDword aCommand, void* aArg) {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        return m_Options.Get(aCommand, aArg);
    }

protected:
    CIndicatingProxyCoreT(CCmThreadLink& aUser, CCmThreadLink& aNetwork, CmDword aType, Factory aFactory, CmBool aOnce)
        : CProxyCore(aUser, aNetwork), m_dwType(aType), m_Factory(aFactory), m_bOnce(aOnce) {}

    // Any thread.
    CmBool HasRequest() {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        return m_pSink != nullptr;
    }
    // Any thread. aRequest (out): its number. CM_ERROR_ALREADY_INITIALIZED: a request is current. CM_ERROR_INVALID_ARG: aSink
    // is null.
    CmResult Begin(ICmAcceptorConnectorSink* aSink, CmDword& aRequest) {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        if (m_pSink)
            return CM_ERROR_ALREADY_INITIALIZED;
        if (!aSink)
            return CM_ERROR_INVALID_ARG;
        m_pSink = aSink;
        m_Failure = {};
        aRequest = ++m_dwRequest;
        return CM_OK;
    }
    // Any thread. FALSE: none was current.
    CmBool End() {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        ++m_dwRequest;
        return std::exchange(m_pSink, nullptr) != nullptr;
    }
    // Any thread.
    CmBool IsCurrent(CmDword aRequest) {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        return aRequest == m_dwRequest;
    }
    // Any thread: ends the network thread's side. Needs no memory.
    void PostLetGo() { m_LetGoEvent.Post(GetNetwork()); }
    // Any thread. Has no effect for a request that is no longer current.
    void NoteFailure(CmDword aRequest, const CCmFailure& aFailure) {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        if (aRequest == m_dwRequest)
            m_Failure = aFailure;
    }
    // Any thread. The failure can be read before the indication arrives. A connector's needs no memory; without memory for an
    // acceptor's the connection closes.
    void PostIndication(CmDword aRequest, CmResult aReason, CCmRefPtrT<ICmTransport> aTransport, const CCmFailure& aFailure) {
        NoteFailure(aRequest, aFailure);
        CIndication indication{aRequest, aReason, std::move(aTransport)};
        if (m_bOnce)
            PostOnly_i(indication);
        else if (aReason == CM_OK)
            GetUser().Post([indication, pThis = CCmRefPtrT<CIndicatingProxyCoreT>(this)] { pThis->Indicate_i(indication); });
    }

    // Network thread: ensures that there is an inner object with the user's options.
    CmResult Make_i() {
        const CmResult rv = m_pInner ? CM_OK : MakeInner_i();
        return rv == CM_OK ? PassOptions_i() : rv;
    }
    // Network thread: ends its side; may delete this object.
    void LetGo_i() {
        const CCmRefPtrT<Inner> pInner = std::move(m_pInner);
        m_dwRunning = 0;
        if (!pInner)
            return;
        Stop_i(*pInner);
        Leave_i();
    }
    virtual void Stop_i(Inner& aInner) = 0;
    // The connection type of the transport that is being indicated.
    virtual CmDword GetIndicatedType_i() const { return m_dwType; }

    // Network thread only.
    CCmRefPtrT<Inner> m_pInner;
    CmDword m_dwRunning = 0;  // the current request, 0 for none

private:
    struct CIndication {
        CmDword m_dwRequest = 0;
        CmResult m_Reason = CM_OK;
        CCmRefPtrT<ICmTransport> m_pTransport;
    };

    // On failure there is none.
    CmResult MakeInner_i() {
        m_Passed = NoOptions_i();
        CmResult rv = m_Factory(m_dwType, m_pInner.ParaOut());
        if (rv == CM_OK && !Host_i())
            rv = CM_ERROR_NOT_AVAILABLE;
        if (rv != CM_OK)
            m_pInner.Reset();
        return rv;
    }
    CmResult PassOptions_i() {
        COptionValues options = NoOptions_i();
        const CmBool bCopied = WithMemory([&] {
            CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
            options = m_Options;
        });
        return bCopied ? options.PassTo(m_pInner.Get(), m_Passed) : CM_ERROR_OUT_OF_MEMORY;
    }
    COptionValues NoOptions_i() const { return COptionValues(m_dwType, m_bOnce); }

    // A request of a connector has one indication. It replaces one that is still queued for an ended request.
    void PostOnly_i(CIndication& aIndication) {
        {
            CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
            if (aIndication.m_dwRequest != m_dwRequest)
                return;
            std::swap(m_Only, aIndication);
        }
        m_OnlyEvent.Post(GetUser());
    }
    CIndication TakeOnly_i() {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        return std::exchange(m_Only, {});
    }
    void OnOnly() { Indicate_i(TakeOnly_i()); }
    void OnOnlyDropped() { TakeOnly_i(); }

    // User's thread.
    void Indicate_i(const CIndication& aIndication) {
        if (ICmAcceptorConnectorSink* pSink = SinkOf(aIndication.m_dwRequest))
            pSink->OnConnectIndication(aIndication.m_Reason, aIndication.m_pTransport.Get(), m_pProxy);
    }
    ICmAcceptorConnectorSink* SinkOf(CmDword aRequest) {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        if (aRequest != m_dwRequest)
            return nullptr;
        return m_bOnce ? std::exchange(m_pSink, nullptr) : m_pSink;
    }

    const CmDword m_dwType;
    const Factory m_Factory;
    const CmBool m_bOnce;                        // an indication ends the request
    COptionValues m_Passed = NoOptions_i();      // network thread only; the values set in m_pInner
    ICmAcceptorConnectorId* m_pProxy = nullptr;  // the handle, for upcalls: exists while there is a sink

    CEmbeddedEventT<CIndicatingProxyCoreT, &CIndicatingProxyCoreT::LetGo_i> m_LetGoEvent{*this};

    CCmMutexThread m_Mutex;
    ICmAcceptorConnectorSink* m_pSink CM_GUARDED_BY(m_Mutex) = nullptr;  // not owned
    CmDword m_dwRequest CM_GUARDED_BY(m_Mutex) = 0;
    CCmFailure m_Failure CM_GUARDED_BY(m_Mutex);                     // of the current request
    COptionValues m_Options CM_GUARDED_BY(m_Mutex) = NoOptions_i();  // the user's values
    CIndication m_Only CM_GUARDED_BY(m_Mutex);                       // a connector's, queued
    CEmbeddedEventT<CIndicatingProxyCoreT, &CIndicatingProxyCoreT::OnOnly, &CIndicatingProxyCoreT::OnOnlyDropped> m_OnlyEvent{
        *this};
};

// The handle over such a core.
template <class Proxy, class Interface, class Core>
class CIndicatingProxyT : public CThreadProxyT<Interface, Core>, public CConnectOptions {
public:
    // aArguments: the others of the core. Null: memory ran out.
    template <class... Arguments>
    static CCmRefPtrT<Interface> Make(CCmThreadLink& aUser, CCmThreadLink& aNetwork, Arguments... aArguments) {
        const auto pProxy = CBase::template Make_i<Proxy>(aUser, aNetwork, aArguments...);
        if (pProxy)
            pProxy->m_pCore->SetProxy(pProxy.Get());
        return pProxy;
    }

protected:
    using CBase = CThreadProxyT<Interface, Core>;
    using CBase::CBase;

private:
    CCmFailure GetFailure() const override { return this->m_pCore->GetFailure(); }
    CmResult SetOption_i(CmDword aCommand, void* aArg) override { return this->m_pCore->SetOption(aCommand, aArg); }
    CmResult GetOption_i(CmDword aCommand, void* aArg) override { return this->m_pCore->GetOption(aCommand, aArg); }
};

}  // namespace talvo
