#include "talvo/transport/connect_options.h"

#include "talvo/base/trace.h"

namespace talvo {

CmResult CConnectOptions::SetOption(DWORD aCommand, void* aArg) {
    const CmResult rv = aArg ? SetOption_i(aCommand, aArg) : CM_ERROR_INVALID_ARG;
    if (rv == CM_ERROR_INVALID_ARG)
        CM_WARNING_TRACE_THIS("CConnectOptions::SetOption, refused. aCommand=" << aCommand << " aArg=" << aArg);
    return rv;
}

CmResult CConnectOptions::GetOption(DWORD aCommand, void* aArg) {
    if (aCommand == CM_OPT_CONNECT_FAILURE && aArg) {
        *static_cast<CCmFailure*>(aArg) = GetFailure();
        return CM_OK;
    }
    const CmResult rv = aArg ? GetOption_i(aCommand, aArg) : CM_ERROR_INVALID_ARG;
    if (rv == CM_ERROR_INVALID_ARG)
        CM_WARNING_TRACE_THIS("CConnectOptions::GetOption, unknown aCommand=" << aCommand << " aArg=" << aArg);
    return rv;
}

CmResult CConnectOptions::SetOption_i(DWORD, void*) { return CM_ERROR_INVALID_ARG; }

CmResult CConnectOptions::GetOption_i(DWORD, void*) { return CM_ERROR_INVALID_ARG; }

CCmFailure GetConnectFailure(ICmAcceptorConnectorId* aId) {
    CCmFailure failure;
    if (ICmConnectOptions* pOptions = cm_get_connect_options(aId))
        pOptions->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
    return failure;
}

CmResult SetConnectOption(ICmAcceptorConnectorId* aId, DWORD aCommand, void* aArg) {
    ICmConnectOptions* pOptions = cm_get_connect_options(aId);
    return pOptions ? pOptions->SetOption(aCommand, aArg) : CM_ERROR_INVALID_ARG;
}

CmResult GetConnectOption(ICmAcceptorConnectorId* aId, DWORD aCommand, void* aArg) {
    ICmConnectOptions* pOptions = cm_get_connect_options(aId);
    return pOptions ? pOptions->GetOption(aCommand, aArg) : CM_ERROR_INVALID_ARG;
}

}  // namespace talvo
