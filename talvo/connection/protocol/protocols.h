// The kinds of protocol connections, and what makes them.
#pragma once

#include "talvo/base/ref_ptr.h"
#include "talvo/transport/connection_type.h"

namespace talvo {

// A row of the table.
struct CProtocol {
    // The kind that a type's flags ask for, the first that fits; null: none.
    static const CProtocol* Find(CConnectionType aType);

    DWORD m_dwFlags;          // a type that has them all asks for this kind
    DWORD m_dwCanonical;      // the type that a creation reports
    const char* m_pName;      // in the trace,
    BOOL m_bTellsKeepAlive;   // which also says whether keep-alives are sent,
    BOOL m_bServerTellsBase;  // and for a server what lies below, as it always does for a client
    BOOL m_bOverDatagrams;    // it can lie over datagrams, too

    // Over aLower, which it then owns; aType is the whole type. Network thread. Null maker: nobody makes it yet; null result:
    // memory ran out.
    CCmRefPtrT<ICmConnector> (*m_MakeConnector)(CCmRefPtrT<ICmConnector> aLower, CConnectionType aType);
    CCmRefPtrT<ICmAcceptor> (*m_MakeAcceptor)(CCmRefPtrT<ICmAcceptor> aLower, CConnectionType aType);
};

}  // namespace talvo
