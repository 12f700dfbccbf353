// A protocol connection with an unfinished opening, as the connector or acceptor that made it holds it.
#pragma once

#include <new>

#include "talvo/base/ref_ptr.h"
#include "talvo/connection/protocol/conn_base.h"

namespace talvo {

// One object with its interfaces, for any class. Empty: none.
struct COpeningConn {
    explicit operator bool() const { return bool{m_pConn}; }

    // Ends the opening without a call.
    void Cancel() const { m_CancelConnect(*m_pConn); }

    CCmRefPtrT<CConnBase> m_pConn;
    ICmAcceptorConnectorSink* m_pSink = nullptr;  // gets the transport below; lives as long as m_pConn
    void (*m_CancelConnect)(CConnBase& aConn) = nullptr;
};

template <class T>
COpeningConn MakeOpeningConn(T* aConn) {
    COpeningConn opening;
    opening.m_pConn = aConn;
    opening.m_pSink = aConn;
    opening.m_CancelConnect = [](CConnBase& aBase) { static_cast<T&>(aBase).CancelConnect(); };
    return opening;
}

// A new T, with keep-alives if requested and supported; empty: memory ran out.
template <class T>
COpeningConn NewOpeningConn([[maybe_unused]] CmBool aNeedKeepAlive) {
    const CCmRefPtrT<T> pConn(new (std::nothrow) T);
    if (!pConn)
        return {};
    if constexpr (requires(T & aConn) { aConn.NeedKeepAlive(CM_TRUE); })
        pConn->NeedKeepAlive(aNeedKeepAlive);
    return MakeOpeningConn(pConn.Get());
}

}  // namespace talvo
