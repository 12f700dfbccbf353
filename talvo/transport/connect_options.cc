#include "talvo/transport/connect_options.h"

#include "talvo/base/trace.h"

namespace talvo {

CmResult CConnectOptions::SetOption(DWORD aCommand, void* aArg) {
    CM_WARNING_TRACE_THIS("CConnectOptions::SetOption, unknown aCommand=" << aCommand << " aArg=" << aArg);
    return CM_ERROR_INVALID_ARG;
}

CmResult CConnectOptions::GetOption(DWORD aCommand, void* aArg) {
    if (aCommand != CM_OPT_CONNECT_FAILURE || !aArg) {
        CM_WARNING_TRACE_THIS("CConnectOptions::GetOption, unknown aCommand=" << aCommand << " aArg=" << aArg);
        return CM_ERROR_INVALID_ARG;
    }
    *static_cast<CCmFailure*>(aArg) = GetFailure();
    return CM_OK;
}

CCmFailure GetConnectFailure(ICmAcceptorConnectorId* aId) {
    CCmFailure failure;
    if (ICmConnectOptions* pOptions = cm_get_connect_options(aId))
        pOptions->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
    return failure;
}

}  // namespace talvo
