// The library's results as std::error_code.
#pragma once

#include <system_error>
#include <type_traits>

#include "talvo/base/export.h"
#include "talvo/base/failure.h"
#include "talvo/base/result.h"

namespace talvo {

// The category of the library's codes. The process has one object, in the shared library, so that codes compare equal wherever
// they were made. Its name is "talvo". A code has the value of a CmResult; or, for a failure that the system has reported, the
// errno (1 to 4095). default_error_condition is a std::errc where one fits, so that
//    code == std::errc::connection_refused, code == std::errc::timed_out
// hold without a look at the value. Any thread.
TALVO_API const std::error_category& category() noexcept;

inline std::error_code make_error_code(CmResult result) noexcept { return {result, category()}; }  // value: result

// The code of result with the cause of its failure: the errno if the system has reported one; CM_ERROR_TIMEOUT if a time-out
// passed or the peer was silent; otherwise that of result. CM_OK gives the code 0.
TALVO_API std::error_code make_error_code(CmResult result, const CCmFailure& failure) noexcept;

// Names for the values: code == talvo::errc::tls_certificate.
enum class errc : CmResult {
    failure = CM_ERROR_FAILURE,
    not_initialized = CM_ERROR_NOT_INITIALIZED,
    already_initialized = CM_ERROR_ALREADY_INITIALIZED,
    not_implemented = CM_ERROR_NOT_IMPLEMENTED,
    null_pointer = CM_ERROR_NULL_POINTER,
    unexpected = CM_ERROR_UNEXPECTED,
    out_of_memory = CM_ERROR_OUT_OF_MEMORY,
    invalid_argument = CM_ERROR_INVALID_ARG,
    not_available = CM_ERROR_NOT_AVAILABLE,
    would_block = CM_ERROR_WOULD_BLOCK,
    not_found = CM_ERROR_NOT_FOUND,
    found = CM_ERROR_FOUND,
    partial_data = CM_ERROR_PARTIAL_DATA,
    timeout = CM_ERROR_TIMEOUT,
    socket_error = CM_ERROR_NETWORK_SOCKET_ERROR,
    socket_close = CM_ERROR_NETWORK_SOCKET_CLOSE,
    peer_not_back = CM_ERROR_NETWORK_PEER_NOT_BACK,
    connect_impossible = CM_ERROR_NETWORK_CONNECT_TIMEOUT,  // the attempt failed at once, despite the result's name
    connect_failed = CM_ERROR_NETWORK_CONNECT_ERROR,
    dns_failure = CM_ERROR_NETWORK_DNS_FAILURE,
    http_failure = CM_ERROR_NETWORK_HTTP_FAILURE,
    proxy_unavailable = CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE,
    reconnect_failed = CM_ERROR_NETWORK_RECONNECT_FAILED,
    connect_refused = CM_ERROR_NETWORK_CONNECT_REFUSED,
    bad_connect_response = CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE,
    in_doubt = CM_ERROR_NETWORK_IN_DOUBT,
    tls_handshake = CM_ERROR_NETWORK_TLS_HANDSHAKE,
    tls_certificate = CM_ERROR_NETWORK_TLS_CERTIFICATE,
    tls_cut = CM_ERROR_NETWORK_TLS_CUT
};

// For std::error_code's constructor.
inline std::error_code make_error_code(errc code) noexcept { return make_error_code(static_cast<CmResult>(code)); }

}  // namespace talvo

template <>
struct std::is_error_code_enum<talvo::errc> : std::true_type {};
