// The sink behind a connection. Not for applications.
#pragma once

#include "talvo/co/stream.h"
#include "talvo/transport/rest_option.h"

namespace talvo::detail {

class channel final : public stream, public ICmTransportSink {
public:
    explicit channel(ICmTransport& transport) : stream(transport) {}

    // ends_halves: the peer's half-close is an end of the messages only.
    CmResult open(bool ends_halves) {
        int32_t on = 1;
        transport().SetOption(OPT_REST_BEFORE_FAILURE, &on);  // the queue takes the rest, beyond its limit
        ends_halves_ = ends_halves && transport().SetOption(CM_OPT_TRANSPORT_TELL_END, &on) == CM_OK;
        return transport().OpenWithSink(this);
    }

private:
    void OnReceive(CCmMessageBlock& data, ICmTransport*, CCmTransportParameter*) override {
        if (ends_halves_ && data.GetTopLevelLength() == 0 && data.GetChainedLength() == 0)
            take_half_end();
        else
            take_data(data);
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { take_room(); }
    void OnDisconnect(CmResult reason, ICmTransport*) override {
        CCmFailure failure;
        transport().GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure);
        const bool orderly = reason == CM_ERROR_NETWORK_SOCKET_ERROR && !failure;
        take_end(orderly ? std::error_code() : make_error_code(reason, failure));
    }

    bool ends_halves_ = false;
};

}  // namespace talvo::detail
