// Looks up host names.
#pragma once

#include <new>
#include <vector>

#include "talvo/co/address.h"
#include "talvo/co/combine.h"
#include "talvo/co/task.h"
#include "talvo/event/timer_queue.h"
#include "talvo/transport/dns/dns_manager.h"

namespace talvo {

namespace detail {

class [[nodiscard]] resolve_awaiter final : private ICmObserver {
public:
    explicit resolve_awaiter(result<address> name) : name_(std::move(name)) {}
    resolve_awaiter(resolve_awaiter&& other) : name_(std::move(other.name_)) {}  // before it is awaited only
    ~resolve_awaiter() override {
        if (awaiting_)
            CCmDnsManager::Instance()->CancelResolve(this);
    }

    // A literal address, a path and a cached name are answered at once.
    bool await_ready() {
        if (!name_) {
            outcome_ = name_.error();
            return true;
        }
        if (name_->native().IsResolved()) {
            outcome_ = std::vector<address>{*name_};
            return true;
        }
        CCmDnsManager* const manager = CCmDnsManager::Instance();
        CCmRefPtrT<CCmDnsRecord> record;
        const CmResult code =
            manager ? manager->AsyncResolve(record.ParaOut(), name_->native().GetHostName(), this) : CM_ERROR_OUT_OF_MEMORY;
        if (code == CM_OK)
            take(*record);
        else if (code != CM_ERROR_WOULD_BLOCK)
            outcome_ = make_error_code(code);
        return code != CM_ERROR_WOULD_BLOCK;
    }
    void await_suspend(std::coroutine_handle<> awaiting) noexcept { awaiting_ = awaiting; }
    result<std::vector<address>> await_resume() { return std::move(outcome_); }

private:
    void OnObserve(const char*, void* record) override {
        if (!awaiting_)
            return;
        take(*static_cast<CCmDnsRecord*>(record));
        std::exchange(awaiting_, nullptr).resume();
    }

    void take(const CCmDnsRecord& record) {
        if (record.GetState() == CCmDnsRecord::FAILED) {
            outcome_ = make_error_code(CM_ERROR_NETWORK_DNS_FAILURE);
            return;
        }
        try {
            std::vector<address> found;
            for (const CIpBytes& each : record.GetAddresses())
                found.push_back(CCmInetAddr(each, name_->port()));
            outcome_ = std::move(found);
        } catch (const std::bad_alloc&) {
            outcome_ = make_error_code(CM_ERROR_OUT_OF_MEMORY);
        }
    }

    result<address> name_;
    result<std::vector<address>> outcome_;
    std::coroutine_handle<> awaiting_;
};

}  // namespace detail

// Looks up the name of "host:port" in the library's cache and servers. co_await gives a result<std::vector<address>>, at least
// one, with the port; a literal address gives itself. talvo::errc::dns_failure: no address. The other errors are those of
// CCmDnsManager::AsyncResolve. With a stop token also std::errc::operation_canceled.
inline auto resolve(std::string_view host_and_port) { return detail::resolve_awaiter(address::parse(host_and_port)); }
inline auto resolve(std::string_view host_and_port, std::stop_token token) {
    return with_stop(std::move(token), resolve(host_and_port));
}

}  // namespace talvo
