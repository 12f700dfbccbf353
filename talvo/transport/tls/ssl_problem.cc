#include "talvo/transport/tls/ssl_problem.h"

#include <openssl/err.h>

#include <cerrno>
#include <system_error>

namespace talvo {

CSslProblem CSslProblem::FromOpenSsl(const std::string& aFile) {
    const char* pReason = ERR_reason_error_string(ERR_peek_last_error());
    ERR_clear_error();
    return {CM_ERROR_INVALID_ARG, aFile, pReason ? pReason : "it is not valid"};
}

CSslProblem CSslProblem::FromErrno(const std::string& aFile) {
    return {CM_ERROR_NOT_FOUND, aFile, std::system_category().message(errno)};
}

}  // namespace talvo
