// Connectors and acceptors with options. Not for applications.
#pragma once

#include <string>

#include "talvo/co/kind.h"
#include "talvo/co/options.h"

namespace talvo::detail {

inline CmResult set_tls(ICmAcceptorConnectorId* object, const tls_context* tls) {
    if (!tls)
        return CM_OK;
    CCmRefPtrT<CCmSslContext> context = tls->native();
    return cm_get_connect_options(object)->SetOption(CM_OPT_CONNECT_SSL_CONTEXT, &context);
}

// Makes a connector or an acceptor of a kind in the calling thread.
inline CmResult make_native(kind type, const connect_options& options, CCmRefPtrT<ICmConnector>& made) {
    CCmConnectionManager* const manager = CCmConnectionManager::Instance();
    CmResult code = manager ? manager->CreateConnectionClient(type.type(), made.ParaOut()) : CM_ERROR_NOT_INITIALIZED;
    const auto set = [&](uint32_t command, auto value) {
        return cm_get_connect_options(made.Get())->SetOption(command, &value);
    };
    if (code == CM_OK)
        code = set_tls(made.Get(), options.tls);
    if (code == CM_OK && !options.server_name.empty())
        code = set(CM_OPT_CONNECT_SERVER_NAME, std::string(options.server_name));
    if (code == CM_OK && options.proxy)
        code = set(CM_OPT_CONNECT_PROXY, uint32_t{CM_CONNECT_PROXY_DISCOVERED});
    return code;
}
inline CmResult make_native(kind type, const listen_options& options, CCmRefPtrT<ICmAcceptor>& made) {
    CCmConnectionManager* const manager = CCmConnectionManager::Instance();
    const CmResult code = manager ? manager->CreateConnectionServer(type.type(), made.ParaOut()) : CM_ERROR_NOT_INITIALIZED;
    return code == CM_OK ? set_tls(made.Get(), options.tls) : code;
}

// The address of an acceptor; null: none.
template <class Acceptor>
address bound_address(Acceptor* acceptor) {
    CCmInetAddr bound;
    if (acceptor)
        acceptor->GetListenAddr(bound);
    return bound;
}
// Why an acceptor, which may be null, does not listen.
inline CCmFailure listen_failure(ICmAcceptor* acceptor) {
    CCmFailure found;
    if (acceptor)
        cm_get_connect_options(acceptor)->GetOption(CM_OPT_CONNECT_FAILURE, &found);
    return found;
}

}  // namespace talvo::detail
