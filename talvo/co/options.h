// The options of connections.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <string>
#include <string_view>
#include <type_traits>

#include "talvo/co/address.h"
#include "talvo/connection/protocol/connection_options.h"
#include "talvo/transport/tls/ssl_context.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// A value of type T that a connection has, see connection::get and set. Any command of ECmTransportOption and ECsOption fits.
template <class T>
struct option {
    uint32_t command;  // of ECmTransportOption or ECsOption
};

// Options for connection::get and set, with the types of their values.
namespace options {

inline constexpr option<int> send_buffer{CM_OPT_TRANSPORT_SNDBUF};                  // bytes of the socket
inline constexpr option<int> receive_buffer{CM_OPT_TRANSPORT_RCVBUF};               // likewise
inline constexpr option<uint32_t> read_size{CM_OPT_TRANSPORT_READ_SIZE};            // the most bytes of one receive of a stream
inline constexpr option<uint32_t> tcp_keepalive{CM_OPT_TRANSPORT_KEEPALIVE};        // set: more than 0 enables it
inline constexpr option<uint32_t> type_of_service{CM_OPT_TRANSPORT_TOS};            // set
inline constexpr option<uint32_t> unacknowledged{CM_OPT_TRANSPORT_UNACKNOWLEDGED};  // get: bytes
inline constexpr option<uint32_t> max_message{CS_OPT_MAX_MESSAGE_LEN};              // kinds with messages
inline constexpr option<uint32_t> max_unsent{CS_OPT_MAX_BUFF_LEN};                  // package and reliable: bytes
inline constexpr option<uint32_t> keepalive_interval{CS_OPT_KEEPALIVE_INTERVAL};    // seconds
inline constexpr option<uint32_t> reconnect_time{CS_OPT_RECONNECT_TIME};            // reliable: seconds
inline constexpr option<CCmSslInfo> tls_session{CM_OPT_TRANSPORT_SSL_INFO};         // get
inline constexpr option<ucred> peer_credentials{CM_OPT_TRANSPORT_PEER_CREDENTIALS};  // get: of a path's peer
inline constexpr option<std::string> route{CM_OPT_TRANSPORT_ROUTE};                  // get: the proxy of the connection

}  // namespace options

// The certificates and the trust of TLS; a copy shares them. Complete it before its first connection. The errors are those of
// CCmSslContext.
class tls_context {
public:
    tls_context() : native_(new CCmSslContext) {}

    // As SetTrust and AddCertificate.
    result<> trust(const std::string& file) { return make_error_code(native_->SetTrust(file.c_str())); }
    result<> certificate(const std::string& chain_file, const std::string& key_file) {
        return make_error_code(native_->AddCertificate(chain_file.c_str(), key_file.c_str()));
    }
    const CCmRefPtrT<CCmSslContext>& native() const noexcept { return native_; }  // the library's type

private:
    CCmRefPtrT<CCmSslContext> native_;
};

// How to connect. A value that is left out is the library's default. What the members refer to must stay until the connect has
// completed.
//
// These structures are trivial on purpose: GCC before 13 destroys the members of an aggregate twice if it is made inside an
// awaiting expression.
struct connect_options {
    std::chrono::nanoseconds timeout{0};  // for everything, name and handshakes included; 0: the system's limit
    const address* from = nullptr;        // the local address; null: any
    const tls_context* tls = nullptr;     // TLS only; null: the system's trust
    std::string_view server_name = {};    // TLS only: the name in the certificate; "": that of the address
    bool proxy = false;                   // through the proxy of the user's settings
};

// How to listen.
struct listen_options {
    const tls_context* tls = nullptr;  // TLS only, required there: with a certificate. Need not outlive the call
    std::size_t max_connections = 0;   // a connection beyond so many handlers is closed at once; 0: no limit
};

static_assert(std::is_trivially_copyable_v<connect_options> && std::is_trivially_copyable_v<listen_options>);

}  // namespace talvo
