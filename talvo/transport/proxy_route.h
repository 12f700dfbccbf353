// The proxy servers that a connection may use.
#pragma once

#include <memory>
#include <span>
#include <vector>

#include "talvo/base/mutex.h"
#include "talvo/base/reference_control.h"
#include "talvo/transport/proxy_server.h"

// An ordered list of servers: the next one is tried when the one before it cannot be reached. DIRECT stands for a connection
// without a server. A plain value; copies share the servers. Any thread may copy and read it.
class TALVO_API CCmProxyRoute {
public:
    static constexpr size_t MOST_SERVERS = 16;  // the most entries of a route

    CCmProxyRoute() = default;  // empty: no route
    // One entry. Throws std::bad_alloc.
    explicit CCmProxyRoute(const CCmProxyServer& aServer) { m_pServers = std::make_shared<CServers>(1, aServer); }
    static CCmProxyRoute Direct() { return CCmProxyRoute(CCmProxyServer()); }  // throws std::bad_alloc, as above

    // Reads the answer of a script: "PROXY a:80; SOCKS5 b; DIRECT". The words are DIRECT, PROXY or HTTP, HTTPS, SOCKS or
    // SOCKS4, SOCKS4A and SOCKS5, in any case; as in browsers SOCKS is version 4.
    //
    // aRoute (out): unchanged unless CM_OK. An entry that is no server is skipped with a trace line, as are those beyond
    // MOST_SERVERS: another form, a host that CCmProxyServer::Make refuses, a port outside 1 to 65535. An IPv6 address stands
    // in brackets. CM_ERROR_INVALID_ARG: no entry is left. CM_ERROR_OUT_OF_MEMORY.
    static CmResult FromScript(std::string_view aText, CCmProxyRoute& aRoute);

    // Reads URIs: "http://user:password@a:3128,socks5h://b,direct://". The schemes are http (also without a scheme), https,
    // socks4, socks4a, socks5, and direct (also as the word alone); socks5h and socks mean socks5. User and password are
    // percent-decoded. Nothing but a "/" may follow the port. Results and rules as above; the lines have no credentials.
    static CmResult FromUris(std::string_view aText, CCmProxyRoute& aRoute);

    // CM_ERROR_NOT_AVAILABLE: the route is full. CM_ERROR_OUT_OF_MEMORY. Both change nothing.
    CmResult Add(const CCmProxyServer& aServer);

    CmBool IsEmpty() const { return GetServers().empty(); }  // there is no route
    // TRUE: DIRECT is the only entry.
    CmBool IsDirect() const { return GetServers().size() == 1 && GetServers()[0].IsDirect(); }
    // Valid as long as this value or a copy of it, unless Add changes it.
    std::span<const CCmProxyServer> GetServers() const {
        return m_pServers ? std::span<const CCmProxyServer>(*m_pServers) : std::span<const CCmProxyServer>();
    }

    // The texts of the servers, without credentials, joined by commas. May throw std::bad_alloc.
    CCmString GetText() const;
    // As a script returns them, which FromScript reads: "PROXY a:80; SOCKS5 b:1080; DIRECT". Without credentials; likewise.
    CCmString GetScriptText() const;

private:
    using CServers = std::vector<CCmProxyServer>;

    template <class Callable>
    CmResult Take_i(Callable aRead);

    std::shared_ptr<const CServers> m_pServers;  // never changed; null: empty
};

// A route with a reference count, for CreateChannelHttpClientWithProxy. It does not change; any thread.
class TALVO_API CCmHttpProxyInfo : public CCmReferenceControlT<CCmMutexThread> {
public:
    // Put the object into a CCmRefPtrT, as all counted ones.
    explicit CCmHttpProxyInfo(CCmProxyRoute aRoute) : m_Route(std::move(aRoute)) {}
    ~CCmHttpProxyInfo() override = default;

    const CCmProxyRoute& GetRoute() const { return m_Route; }  // valid as long as this object

private:
    const CCmProxyRoute m_Route;
};
