#include "tools/failure.h"

namespace tool {

const char* GetCauseName(ECause aCause) {
    switch (aCause) {
    case CAUSE_OTHER:
        break;
    case CAUSE_USAGE:
        return "usage";
    case CAUSE_NAME:
        return "name";
    case CAUSE_CONNECT:
        return "connect";
    case CAUSE_TLS:
        return "tls";
    case CAUSE_TIMEOUT:
        return "timeout";
    case CAUSE_BROKEN:
        return "broken";
    case CAUSE_PROTOCOL:
        return "protocol";
    case CAUSE_REFUSED:
        return "refused";
    case CAUSE_LOCAL:
        return "local";
    case CAUSE_CHANGED:
        return "changed";
    }
    return "other";
}

namespace {

ECause GetCauseOfResult(CmResult aReason) {
    switch (aReason) {
    case CM_ERROR_INVALID_ARG:
        return CAUSE_USAGE;
    case CM_ERROR_NETWORK_DNS_FAILURE:
        return CAUSE_NAME;
    case CM_ERROR_NETWORK_CONNECT_TIMEOUT:
    case CM_ERROR_NETWORK_CONNECT_ERROR:
    case CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE:
    case CM_ERROR_NETWORK_RECONNECT_FAILED:
        return CAUSE_CONNECT;
    case CM_ERROR_NETWORK_TLS_HANDSHAKE:
    case CM_ERROR_NETWORK_TLS_CERTIFICATE:
        return CAUSE_TLS;
    case CM_ERROR_TIMEOUT:
        return CAUSE_TIMEOUT;
    case CM_ERROR_NETWORK_SOCKET_ERROR:
    case CM_ERROR_NETWORK_SOCKET_CLOSE:
    case CM_ERROR_NETWORK_PEER_NOT_BACK:
    case CM_ERROR_NETWORK_IN_DOUBT:
    case CM_ERROR_NETWORK_TLS_CUT:
        return CAUSE_BROKEN;
    case CM_ERROR_NETWORK_HTTP_FAILURE:
    case CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE:
        return CAUSE_PROTOCOL;
    case CM_ERROR_NETWORK_CONNECT_REFUSED:
        return CAUSE_REFUSED;
    case CM_ERROR_OUT_OF_MEMORY:
    case CM_ERROR_UNEXPECTED:
    case CM_ERROR_NOT_AVAILABLE:
        return CAUSE_LOCAL;
    default:
        return CAUSE_OTHER;
    }
}

}  // namespace

ECause GetCause(CmResult aReason, const CCmFailure& aDetail) {
    switch (aDetail.GetCause()) {
    case CM_FAILURE_NO_SUCH_NAME:
    case CM_FAILURE_NO_RESOLVER:
        return CAUSE_NAME;
    case CM_FAILURE_TIMEOUT:
    case CM_FAILURE_SILENCE:
        return CAUSE_TIMEOUT;
    case CM_FAILURE_LOCAL:
        return CAUSE_LOCAL;
    case CM_FAILURE_NONE:
    case CM_FAILURE_SYSTEM:
    case CM_FAILURE_PROTOCOL:
        break;
    }
    const ECause cause = GetCauseOfResult(aReason);
    const bool bVague = cause == CAUSE_LOCAL || cause == CAUSE_OTHER;
    return bVague && aDetail.GetCause() == CM_FAILURE_PROTOCOL ? CAUSE_PROTOCOL : cause;
}

std::string DescribeResult(CmResult aResult) { return talvo::category().message(aResult); }

}  // namespace tool
