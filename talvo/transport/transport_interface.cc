#include "talvo/transport/transport_interface.h"

ICmTransportSink::~ICmTransportSink() = default;
ICmAcceptorConnectorSink::~ICmAcceptorConnectorSink() = default;
ICmConnectOptions::~ICmConnectOptions() = default;

ICmConnectOptions* cm_get_connect_options(ICmAcceptorConnectorId* aId) { return dynamic_cast<ICmConnectOptions*>(aId); }

CmResult ICmAcceptor::GetListenAddr(CCmInetAddr&) { return CM_ERROR_NOT_IMPLEMENTED; }
