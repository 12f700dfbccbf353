#include "talvo/http/server/channel_server.h"

void ICmChannelHttpServerSink::OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) {}

void ICmChannelHttpServerSink::OnRequestEnd(ICmChannelHttpServer*) {}

void ICmChannelHttpServerSink::OnClientEnd(ICmChannelHttpServer*) {}

void ICmChannelHttpServerSink::OnSend(ICmTransport*, CCmTransportParameter*) {}

void ICmChannelHttpServerSink::OnConnect(CmResult, ICmChannel*) {}

void ICmChannelServerAcceptorSink::OnRequestLost(CmResult, ICmChannelHttpServer*, ICmChannelServerAcceptor*) {}

void ICmChannelServerAcceptorSink::OnClientEnd(ICmChannelHttpServer*, ICmChannelServerAcceptor*) {}

void ICmChannelServerAcceptorSink::OnStopped(ICmChannelServerAcceptor*) {}

ICmChannelServerAcceptorSink::~ICmChannelServerAcceptorSink() = default;

ICmHttpRefusalSink::~ICmHttpRefusalSink() = default;
