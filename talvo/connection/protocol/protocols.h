// The kinds of protocol connections, and their makers.
#pragma once

#include "talvo/base/ref_ptr.h"
#include "talvo/transport/connection_type.h"

namespace talvo {

// A row of the table.
struct CProtocol {
    // The kind that a type's flags name, the first match; null: none.
    static const CProtocol* Find(CConnectionType aType);

    DWORD m_dwFlags;           // a type with all of them is of this kind
    DWORD m_dwCanonical;       // the type that a creation reports
    const char* m_pName;       // in the trace,
    BOOL m_bTracesKeepAlive;   // with an indication whether keep-alives are sent,
    BOOL m_bServerTracesBase;  // and for a server the layer below; a client always has it
    BOOL m_bOverDatagrams;     // also works over datagrams

    // Over aLower, which it then owns; aType is the whole type. Network thread. Null maker: not offered yet; null result:
    // memory ran out.
    CCmRefPtrT<ICmConnector> (*m_MakeConnector)(CCmRefPtrT<ICmConnector> aLower, CConnectionType aType);
    CCmRefPtrT<ICmAcceptor> (*m_MakeAcceptor)(CCmRefPtrT<ICmAcceptor> aLower, CConnectionType aType);
};

}  // namespace talvo
