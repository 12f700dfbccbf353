#include "talvo/transport/transport_interface.h"

ICmTransportSink::~ICmTransportSink() = default;
ICmAcceptorConnectorSink::~ICmAcceptorConnectorSink() = default;
CmResult ICmAcceptor::GetListenAddr(CCmInetAddr&) { return CM_ERROR_NOT_IMPLEMENTED; }
