// The table of connectors stands above all rooms that make one.
#include <algorithm>
#include <atomic>
#include <iterator>

#include "talvo/transport/connector_internal.h"
#include "talvo/transport/tcp/connector_tcp.h"
#include "talvo/transport/udp/connector_udp.h"

namespace {

struct CEntry {
    DWORD m_dwType;
    std::atomic<CCmConnectorMaker> m_Maker;
};

CEntry s_Makers[] = {{1, CCmConnectorTcp::Make}, {2, CCmConnectorUdp::Make}, {4, nullptr}, {8, nullptr}, {12, nullptr},
                     {0x8000, nullptr}};

CEntry* Find(DWORD aType) {
    CEntry* pEntry =
        std::find_if(std::begin(s_Makers), std::end(s_Makers), [=](const CEntry& a) { return a.m_dwType == aType; });
    return pEntry != std::end(s_Makers) ? pEntry : nullptr;
}

}  // namespace

CmResult cm_set_connector_maker(DWORD aType, CCmConnectorMaker aMaker) {
    CEntry* pEntry = Find(aType);
    if (!pEntry || !aMaker)
        return CM_ERROR_INVALID_ARG;
    pEntry->m_Maker = aMaker;
    return CM_OK;
}

CmResult cm_get_connector_maker(DWORD aType, CCmConnectorMaker& aMaker) {
    const CEntry* pEntry = Find(aType);
    if (!pEntry)
        return CM_ERROR_INVALID_ARG;
    aMaker = pEntry->m_Maker;
    return aMaker ? CM_OK : CM_ERROR_NOT_IMPLEMENTED;
}
