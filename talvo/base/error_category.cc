#include "talvo/base/error_category.h"

#include <cstring>
#include <string>

#include "talvo/base/immortal.h"

namespace talvo {

namespace {

constexpr int LAST_ERRNO = 4095;
constexpr auto NO_CONDITION = std::errc{};

struct CRow {
    CmResult m_Value;
    const char* m_pText;
    std::errc m_Condition = NO_CONDITION;
};

constexpr CRow ROWS[] = {
    {CM_OK, "success"},
    {CM_ERROR_FAILURE, "a system call or another call failed"},
    {CM_ERROR_NOT_INITIALIZED, "not opened yet, closed or stopped", std::errc::not_connected},
    {CM_ERROR_ALREADY_INITIALIZED, "opened, started or created twice"},
    {CM_ERROR_NOT_IMPLEMENTED, "the operation is not offered", std::errc::operation_not_supported},
    {CM_ERROR_NULL_POINTER, "a required object does not exist"},
    {CM_ERROR_UNEXPECTED, "the system refused a resource"},
    {CM_ERROR_OUT_OF_MEMORY, "out of memory", std::errc::not_enough_memory},
    {CM_ERROR_INVALID_ARG, "an argument is out of range or unknown", std::errc::invalid_argument},
    {CM_ERROR_NOT_AVAILABLE, "not possible now"},
    {CM_ERROR_WOULD_BLOCK, "started, completes later", std::errc::operation_would_block},
    {CM_ERROR_NOT_FOUND, "the item does not exist"},
    {CM_ERROR_FOUND, "the item existed already"},
    {CM_ERROR_PARTIAL_DATA, "not all was taken, or input is incomplete", std::errc::operation_would_block},
    {CM_ERROR_TIMEOUT, "timed out", std::errc::timed_out},
    {CM_ERROR_NETWORK_SOCKET_ERROR, "a socket call failed, or the connection broke", std::errc::io_error},
    {CM_ERROR_NETWORK_SOCKET_CLOSE, "the library closed the connection", std::errc::connection_aborted},
    {CM_ERROR_NETWORK_PEER_NOT_BACK, "the peer did not connect again in time", std::errc::timed_out},
    {CM_ERROR_NETWORK_CONNECT_TIMEOUT, "the connect attempt failed at once"},
    {CM_ERROR_NETWORK_CONNECT_ERROR, "the connect attempt failed or timed out"},
    {CM_ERROR_NETWORK_DNS_FAILURE, "the name has no known address"},
    {CM_ERROR_NETWORK_HTTP_FAILURE, "the HTTP exchange failed"},
    {CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, "the proxy server cannot be reached or used"},
    {CM_ERROR_NETWORK_RECONNECT_FAILED, "the server was not reached again in time", std::errc::timed_out},
    {CM_ERROR_NETWORK_CONNECT_REFUSED, "the peer refused the connection", std::errc::connection_refused},
    {CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE, "the peer speaks another connection type", std::errc::protocol_error},
    {CM_ERROR_NETWORK_IN_DOUBT, "the connection ended while it was suspended"},
    {CM_ERROR_NETWORK_TLS_HANDSHAKE, "the peers cannot agree on a TLS session", std::errc::protocol_error},
    {CM_ERROR_NETWORK_TLS_CERTIFICATE, "the peer's certificate is refused"},
    {CM_ERROR_NETWORK_TLS_CUT, "the TLS stream ended without close_notify"},
};

const CRow* FindRow(int aValue) {
    for (const CRow& row : ROWS) {
        if (row.m_Value == aValue)
            return &row;
    }
    return nullptr;
}

bool IsErrno(int aValue) { return aValue > 0 && aValue <= LAST_ERRNO; }

class CCategory final : public std::error_category {
public:
    const char* name() const noexcept override { return "talvo"; }

    std::string message(int aValue) const override {
        const CRow* pRow = FindRow(aValue);
        if (pRow)
            return pRow->m_pText;
        const char* pText = IsErrno(aValue) ? strerrordesc_np(aValue) : nullptr;
        return pText ? pText : "unknown result " + std::to_string(aValue);
    }

    std::error_condition default_error_condition(int aValue) const noexcept override {
        if (aValue == CM_OK || IsErrno(aValue))
            return {aValue, std::generic_category()};
        const CRow* pRow = FindRow(aValue);
        if (pRow && pRow->m_Condition != NO_CONDITION)
            return pRow->m_Condition;
        return {aValue, *this};
    }
};

}  // namespace

const std::error_category& category() noexcept {
    static CImmortalT<CCategory> s_Category;  // codes are compared until the process ends
    return *s_Category;
}

std::error_code make_error_code(CmResult result, const CCmFailure& failure) noexcept {
    if (result == CM_OK)
        return make_error_code(CM_OK);
    switch (failure.GetCause()) {
    case CM_FAILURE_SYSTEM:
        return {failure.GetErrno(), category()};
    case CM_FAILURE_TIMEOUT:
    case CM_FAILURE_SILENCE:
        return make_error_code(CM_ERROR_TIMEOUT);
    case CM_FAILURE_NONE:
    case CM_FAILURE_NO_SUCH_NAME:
    case CM_FAILURE_NO_RESOLVER:
    case CM_FAILURE_PROTOCOL:
    case CM_FAILURE_LOCAL:
        break;
    }
    return make_error_code(result);
}

}  // namespace talvo
