// Result codes: the return values of nearly all operations, and the reasons in disconnect and connect indications.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// CM_OK is success; every failure is positive. 10001 to 10014 are general. Those from 20001 on are network reasons, which are
// also passed as aReason. The gaps (20002, 20010, ...) are not used. docs/result-codes.md has the action for each.
using CmResult = int32_t;

// All codes: X(NAME, VALUE).
#define CM_FOR_EACH_RESULT(X)                                                                            \
    X(CM_OK, 0)                                         /* success */                                    \
    X(CM_ERROR_FAILURE, 10001)                          /* a system call or another call failed */       \
    X(CM_ERROR_NOT_INITIALIZED, 10002)                  /* not opened or set up yet, or stopped */       \
    X(CM_ERROR_ALREADY_INITIALIZED, 10003)              /* opened, started or created twice */           \
    X(CM_ERROR_NOT_IMPLEMENTED, 10004)                  /* this class does not offer the operation */    \
    X(CM_ERROR_NULL_POINTER, 10005)                     /* a required object does not exist */           \
    X(CM_ERROR_UNEXPECTED, 10006)                       /* an internal call failed unexpectedly */       \
    X(CM_ERROR_OUT_OF_MEMORY, 10007)                    /* an object could not be created */             \
    X(CM_ERROR_INVALID_ARG, 10008)                      /* an argument is out of range or unknown */     \
    X(CM_ERROR_NOT_AVAILABLE, 10009)                    /* not possible now */                           \
    X(CM_ERROR_WOULD_BLOCK, 10010)                      /* started, completes later */                   \
    X(CM_ERROR_NOT_FOUND, 10011)                        /* the looked-up item does not exist */          \
    X(CM_ERROR_FOUND, 10012)                            /* the item existed already; often a success */  \
    X(CM_ERROR_PARTIAL_DATA, 10013)                     /* not all was taken, or input is incomplete */  \
    X(CM_ERROR_TIMEOUT, 10014)                          /* a bounded wait ended without its event */     \
    X(CM_ERROR_NETWORK_SOCKET_ERROR, 20001)             /* a socket call failed, a connection broke */   \
    X(CM_ERROR_NETWORK_SOCKET_CLOSE, 20003)             /* the framework closed the handle */            \
    X(CM_ERROR_NETWORK_PEER_NOT_BACK, 20004)            /* reliable: the client did not come back */     \
    X(CM_ERROR_NETWORK_CONNECT_TIMEOUT, 20005)          /* a connect attempt failed at once */           \
    X(CM_ERROR_NETWORK_CONNECT_ERROR, 20006)            /* an attempt under way failed or timed out */   \
    X(CM_ERROR_NETWORK_DNS_FAILURE, 20007)              /* a name could not be resolved */               \
    X(CM_ERROR_NETWORK_HTTP_FAILURE, 20008)             /* HTTP: the exchange failed, see trace lines */ \
    X(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, 20009) /* the proxy cannot be reached or used */        \
    X(CM_ERROR_NETWORK_RECONNECT_FAILED, 20011)         /* reliable: the server was not reached again */ \
    X(CM_ERROR_NETWORK_CONNECT_REFUSED, 20012)          /* reliable: the peer refused a connect PDU */   \
    X(CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE, 20013)     /* the peer speaks another connection type */    \
    X(CM_ERROR_NETWORK_IN_DOUBT, 20017)                 /* reliable: ended while it was suspended */     \
    X(CM_ERROR_NETWORK_TLS_HANDSHAKE, 20101)            /* the peers cannot agree on a TLS session */    \
    X(CM_ERROR_NETWORK_TLS_CERTIFICATE, 20102)          /* the peer's certificate is refused */          \
    X(CM_ERROR_NETWORK_TLS_CUT, 20103)                  /* a TLS stream ended without close_notify */

#define CM_DECLARE_RESULT(aName, aValue) constexpr CmResult aName = aValue;
CM_FOR_EACH_RESULT(CM_DECLARE_RESULT)
#undef CM_DECLARE_RESULT

// The name of a code as above ("CM_ERROR_TIMEOUT"), or "unknown" for any other number. The text is static.
TALVO_API const char* cm_result_name(CmResult aResult);
