#include "tools/connecting.h"

namespace tool {

CmResult MakeConnector(const Arguments& aArguments, CCmRefPtrT<ICmConnector>& aConnector) {
    CCmConnectionManager* pManager = CCmConnectionManager::Instance();
    CmResult rv = CM_ERROR_NOT_INITIALIZED;
    if (pManager)
        rv = pManager->CreateConnectionClient(aArguments.m_dwType, aConnector.ParaOut());
    if (rv != CM_OK || !aArguments.m_Tls.m_bTls)
        return rv;
    rv = UseContext(aConnector.Get(), aArguments.m_pContext);
    CCmString strName = aArguments.m_Tls.m_strServerName;
    return rv == CM_OK ? cm_get_connect_options(aConnector.Get())->SetOption(CM_OPT_CONNECT_SERVER_NAME, &strName) : rv;
}

}  // namespace tool
