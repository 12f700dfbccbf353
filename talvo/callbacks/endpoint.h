// The sink behind a connection with callbacks. Not for applications.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

#include "talvo/base/chain_ptr.h"
#include "talvo/callbacks/callable.h"
#include "talvo/callbacks/home.h"
#include "talvo/callbacks/received.h"
#include "talvo/co/loop_timer.h"
#include "talvo/co/native.h"
#include "talvo/transport/rest_option.h"
#include "talvo/transport/send_bytes.h"

namespace talvo {
inline namespace callbacks {

class connection;

namespace impl {

class acceptor;
struct maker;

struct callbacks_of {
    callable<connection&> on_open;
    callable<connection&, const received&> on_receive;
    callable<connection&> on_receive_end;
    callable<connection&> on_send;
    callable<connection&, std::error_code> on_end;
};

// The state of a connection. Its connection object owns it; a connection that was accepted and not moved away owns itself.
class endpoint final : public resident,
                       private ICmTransportSink,
                       private ICmAcceptorConnectorSink,
                       private talvo::detail::loop_timer {
public:
    endpoint() = default;

    // A failure is reported from the loop; without a loop the connection has ended.
    void connect(const result<address>& to, kind type, const connect_options& options) {
        CmResult code = to ? CM_OK : to.error().value();
        if (code == CM_OK)
            code = talvo::detail::make_native(type, options, connector_);
        if (code != CM_OK)
            return fail_later(code);
        CCmTimeValue timeout = talvo::detail::time_of(options.timeout);
        CCmInetAddr from;
        if (options.from)
            from = options.from->native();
        state_ = CONNECTING;
        connector_->AsycConnect(this, to->native(), options.timeout.count() > 0 ? &timeout : nullptr,
                                options.from ? &from : nullptr);
    }

    void end_at_once(std::error_code code) {
        error_ = code;
        finish(ENDED);
    }

    // Takes an accepted transport; open() follows when the application has set its callbacks.
    void adopt(ICmTransport* transport, std::shared_ptr<char> place) {
        transport_ = transport;
        place_ = std::move(place);
    }
    void open() {
        if (state_ == IDLE)
            begin();
    }

    callbacks_of& callbacks() noexcept { return callbacks_; }
    void set_owner(connection* owner) noexcept { owner_ = owner; }
    ICmTransport* transport() const noexcept { return transport_.Get(); }
    bool is_open() const noexcept { return state_ == OPEN; }
    bool is_over() const noexcept { return state_ == CLOSING || state_ == ENDED; }
    bool is_full() const noexcept { return state_ == OPEN && rest_; }
    std::error_code error() const noexcept { return error_; }
    CCmFailure failure() const {
        CCmFailure found = failure_;
        if (transport_)
            transport_->GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &found);
        return found;
    }

    // Calls an operation of sending, if data can be taken.
    template <class Send>
    CmResult send(Send send_data) {
        if (is_over())
            return CM_ERROR_NOT_INITIALIZED;
        if (!is_home())
            return CM_ERROR_FAILURE;
        if (state_ != OPEN)
            return CM_ERROR_NOT_AVAILABLE;
        if (rest_)
            return CM_ERROR_WOULD_BLOCK;
        const CmResult code = held_end_ ? CM_ERROR_NETWORK_SOCKET_ERROR : send_data(*this);
        const bool lost = code == CM_ERROR_NETWORK_SOCKET_ERROR || code == CM_ERROR_NOT_INITIALIZED;
        if (lost && !callbacks_.on_receive)
            be_broken();
        return code;
    }

    CmResult send_bytes(std::string_view bytes) {
        if (bytes.size() >= CCmMessageBlock::MOST_LENGTH)
            return CM_ERROR_INVALID_ARG;
        const auto length = static_cast<uint32_t>(bytes.size());
        CCmMessageBlock view(length, bytes.data(), CCmMessageBlock::DONT_DELETE, length);
        return take(view);
    }

    CmResult send_chain(const CCmMessageBlock& chain) {
        if (!chain.GetNext()) {  // a view on the stack copies nothing
            CCmMessageBlock view(chain, chain.GetTopLevelLength());
            return take(view);
        }
        const CCmChainPtr copy(chain.DuplicateChained());
        return copy ? take(*copy) : CM_ERROR_OUT_OF_MEMORY;
    }

    void set_paused(bool paused) {
        paused_ = paused;
        read_if_wanted();
    }

    void read_if_wanted() {
        const bool paused = !is_wanted();
        if (state_ != OPEN || paused == pausing_)
            return;
        if (!paused && (held_end_ || !held_.empty()) && start_soon() == CM_OK)
            return;
        pausing_ = paused;
        int32_t value = paused;
        transport_->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &value);
    }

    CmResult end_sending() {
        int32_t on = 1;
        return transport_->SetOption(CM_OPT_TRANSPORT_END_SENDING, &on);
    }

    void close() {
        const CCmRefPtrT<endpoint> guard(this);
        if (is_over())
            return;
        if (connector_)
            connector_->CancelConnect();
        cancel();
        if (state_ == OPEN && rest_ && start(LINGER_TIME) == CM_OK) {
            lingering_ = this;  // until the rest is sent
            finish(CLOSING);
        } else {
            if (transport_)
                transport_->Disconnect(CM_OK);
            finish(ENDED);
            let_go_soon();
        }
    }

    void abandon() override {
        owner_ = nullptr;
        close();
    }

    inline void keep(connection& own);

private:
    enum state {
        IDLE,        // accepted and not open yet, or its failure is about to be reported
        CONNECTING,  // an indication follows
        OPEN,
        CLOSING,  // by the application: no callbacks, but a rest is still being sent
        ENDED
    };
    static constexpr std::chrono::seconds LINGER_TIME{30};

    ~endpoint() override = default;

    void OnConnectIndication(CmResult reason, ICmTransport* transport, ICmAcceptorConnectorId* id) override {
        const CCmRefPtrT<endpoint> guard(this);
        cm_get_connect_options(id)->GetOption(CM_OPT_CONNECT_FAILURE, &failure_);
        if (reason != CM_OK)
            return end(make_error_code(reason, failure_));
        transport_ = transport;
        state_ = IDLE;
        connector_.Reset();
        begin();
        if (const call_scope scope(*this); scope && state_ == OPEN && owner_)
            callbacks_.on_open(*owner_);
        read_if_wanted();
    }

    void OnReceive(CCmMessageBlock& data, ICmTransport*, CCmTransportParameter*) override {
        const CCmRefPtrT<endpoint> guard(this);
        const call_scope scope(*this);
        if (!scope || !owner_)
            return;
        if (pausing_)
            hold(data);
        else
            give(data);
    }

    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        const CCmRefPtrT<endpoint> guard(this);
        if (!rest_)
            return;
        if (const CmResult code = transport_->SendData(*rest_); code != CM_OK) {
            if (code != CM_ERROR_PARTIAL_DATA)  // OnDisconnect follows
                be_broken();
            return;
        }
        rest_.reset();
        if (state_ == CLOSING)
            end_lingering();
        else if (const call_scope scope(*this); scope && owner_)
            callbacks_.on_send(*owner_);
    }

    void OnDisconnect(CmResult reason, ICmTransport*) override {
        const CCmRefPtrT<endpoint> guard(this);
        const CCmFailure found = failure();
        const bool orderly = reason == CM_ERROR_NETWORK_SOCKET_ERROR && !found && !rest_;
        end_after_held(make_error_code(orderly ? CM_OK : reason, found));
    }

    void on_time() override {
        const CCmRefPtrT<endpoint> guard(this);
        if (state_ == CLOSING)
            end_lingering();
        else if (state_ == ENDED)
            let_go();
        else if (state_ == OPEN)
            give_held();
        else
            end(error_);
    }

    // The loop is over. The callbacks end without a call.
    void OnThreadEnd() override {
        const CCmRefPtrT<endpoint> guard(this);
        connector_.Reset();
        finish(ENDED);
        rest_.reset();
        transport_.Reset();
        lingering_.Reset();
        let_go();
    }

    void begin() {
        state_ = OPEN;
        int32_t on = 1;
        transport_->SetOption(OPT_REST_BEFORE_FAILURE, &on);
        ends_halves_ = callbacks_.on_receive_end && transport_->SetOption(CM_OPT_TRANSPORT_TELL_END, &on) == CM_OK;
        const CmResult code = transport_->OpenWithSink(this);
        if (code != CM_OK)
            return fail_later(code);
        read_if_wanted();  // the data comes from the loop, so that this is early enough
    }

    // The application takes data, or is to get the end at least: a pause until there is room would never end.
    bool is_wanted() const { return broken_ || (!paused_ && callbacks_.on_receive); }
    void be_broken() {
        broken_ = true;
        read_if_wanted();
    }

    void give(CCmMessageBlock& data) {
        if (ends_halves_ && data.GetChainedLength() == 0)
            callbacks_.on_receive_end(*owner_);
        else
            callbacks_.on_receive(*owner_, received(data));
    }

    // In a pause come further messages of one read, and before a failure the rest that has arrived.
    void hold(const CCmMessageBlock& data) {
        CCmChainPtr copy(data.DuplicateChained());
        try {
            if (copy)
                return held_.push_back(std::move(copy));
        } catch (const std::bad_alloc&) {
        }
        transport_->Disconnect(CM_ERROR_OUT_OF_MEMORY);
        end_after_held(make_error_code(CM_ERROR_OUT_OF_MEMORY));
    }

    // Until the application pauses again.
    void give_held() {
        while (state_ == OPEN && is_wanted() && next_held_ < held_.size()) {
            const CCmChainPtr data = std::move(held_[next_held_++]);
            if (const call_scope scope(*this); scope && owner_)
                give(*data);
        }
        if (state_ != OPEN || !is_wanted())
            return;
        held_.clear();
        next_held_ = 0;
        if (held_end_)
            end(*held_end_);
        else
            read_if_wanted();
    }

    void end_after_held(std::error_code code) {
        if (state_ != OPEN || held_.empty())
            return end(code);
        held_end_ = code;
        if (rest_)
            drop_rest();
        read_if_wanted();
    }
    void drop_rest() {
        broken_ = true;
        CountLost(rest_->GetChainedLength());
        rest_.reset();
    }

    void fail_later(CmResult code) {
        state_ = IDLE;
        error_ = make_error_code(code);
        connector_.Reset();
        if (start_soon() != CM_OK)
            finish(ENDED);
    }

    void end(std::error_code code) {
        const bool report = !is_over();
        const callable<connection&, std::error_code> last = callbacks_.on_end;
        error_ = code;
        finish(ENDED);
        lingering_.Reset();
        if (const call_scope scope(*this); scope && report && owner_)
            last(*owner_, code);
        let_go_soon();
    }

    void end_lingering() {
        transport_->Disconnect(CM_OK);
        finish(ENDED);
        lingering_.Reset();
        let_go_soon();
    }

    void finish(state last) {
        state_ = last;
        callbacks_ = {};
        held_.clear();
        if (last == CLOSING)
            return;
        cancel();
        place_.reset();
        if (const CCmChainPtr lost = std::move(rest_))
            CountLost(lost->GetChainedLength());
    }

    // A connection that owns itself is destroyed from the loop: its callback may still use it.
    void let_go_soon() {
        if (kept_ && start_soon() != CM_OK)
            let_go();
    }
    void let_go() { const auto last = std::move(kept_); }

    // Keeps what the transport does not take now. Without memory for that the data is cut, and the connection fails.
    CmResult take(CCmMessageBlock& data) {
        const CmResult code = transport_->SendData(data);
        if (code != CM_ERROR_PARTIAL_DATA)
            return code == CM_ERROR_NULL_POINTER ? CM_ERROR_NOT_INITIALIZED : code;
        rest_.reset(data.DuplicateChained());
        if (rest_)
            return CM_OK;
        transport_->Disconnect(CM_ERROR_OUT_OF_MEMORY);
        fail_later(CM_ERROR_OUT_OF_MEMORY);
        return CM_ERROR_OUT_OF_MEMORY;
    }

    std::atomic<state> state_{IDLE};  // other threads read it
    bool paused_ = false;             // by the application
    bool pausing_ = false;            // the transport pauses, or data is held
    bool broken_ = false;             // a send has failed: a pause does not delay the end
    bool ends_halves_ = false;
    connection* owner_ = nullptr;
    callbacks_of callbacks_;
    std::error_code error_;
    CCmFailure failure_;             // of the connect
    CCmChainPtr rest_;               // taken from the application, and not yet by the transport
    std::vector<CCmChainPtr> held_;  // received in a pause, and not yet given to the application from next_held_ on
    std::size_t next_held_ = 0;
    std::optional<std::error_code> held_end_;  // behind them
    CCmRefPtrT<ICmConnector> connector_;
    CCmRefPtrT<ICmTransport> transport_;
    CCmRefPtrT<endpoint> lingering_;                                             // this, while it sends the rest
    std::unique_ptr<connection, void (*)(connection*)> kept_{nullptr, nullptr};  // the connection that owns itself
    std::shared_ptr<char> place_;                                                // among those of its listener
};

}  // namespace impl
}  // namespace callbacks
}  // namespace talvo
