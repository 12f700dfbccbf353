#include "talvo/transport/base_connector.h"

#include <new>

#include "talvo/transport/base_types.h"
#include "talvo/transport/connection_type.h"
#include "talvo/transport/connector_wrapper.h"
#include "talvo/transport/detection_connector.h"

namespace talvo {

namespace {

CmResult MakeWrapper(DWORD aBase, CCmRefPtrT<ICmConnector>& aConnector) {
    const CCmRefPtrT<CCmConnectorWrapper> pConnector(new (std::nothrow) CCmConnectorWrapper);
    const CmResult rv = pConnector ? pConnector->Init(aBase) : CM_ERROR_OUT_OF_MEMORY;
    if (rv == CM_OK)
        aConnector = pConnector;
    return rv;
}

CmResult MakeForRace(DWORD aBase, ICmConnector*& aConnector) {
    CCmRefPtrT<ICmConnector> pConnector;
    const CmResult rv = MakeWrapper(aBase, pConnector);
    aConnector = pConnector.Detach();
    return rv;
}

CmResult MakeRace(CCmRefPtrT<ICmConnector>& aConnector) {
    const auto pRace = CCmDetectionConnector::Make(JudgeBaseConnector, MakeForRace);
    if (!pRace)
        return CM_ERROR_OUT_OF_MEMORY;
    for (const DWORD dwBase : {DWORD{CM_TRANSPORT_TYPE_TCP}, DWORD{CM_TRANSPORT_TYPE_PROXY}}) {
        const CmResult rv = pRace->AddConnection(dwBase, CCmInetAddr::s_InetAddrAny);
        if (rv != CM_OK && rv != CM_ERROR_NOT_IMPLEMENTED)
            return rv;
    }
    pRace->ShareOptions();
    aConnector = pRace;
    return CM_OK;
}

}  // namespace

CmResult JudgeBaseConnector(DWORD aBase) {
    if (CConnectionType(aBase).IsRace())
        return CM_OK;
    CCmBaseTypeMakers makers;
    const CmResult rv = cm_get_base_type(aBase, makers);
    return rv == CM_OK && !makers.m_Connector ? CM_ERROR_NOT_IMPLEMENTED : rv;
}

CmResult MakeBaseConnector(DWORD aBase, CCmRefPtrT<ICmConnector>& aConnector) {
    return CConnectionType(aBase).IsRace() ? MakeRace(aConnector) : MakeWrapper(aBase, aConnector);
}

}  // namespace talvo
