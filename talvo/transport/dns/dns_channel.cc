#include "talvo/transport/dns/dns_channel.h"

#include <ares.h>
#include <arpa/nameser.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/reactor.h"

namespace talvo {

namespace {

// A channel that could not be created answers every question with this.
constexpr const char* NO_CHANNEL = "the resolver could not be started";

DWORD TtlOf(int aSeconds) { return static_cast<DWORD>(std::max(aSeconds, 0)); }

CIpBytes IpOf(const ares_addrttl& aAddress) { return CIpBytes::OfIpv4(aAddress.ipaddr.s_addr); }

CIpBytes IpOf(const ares_addr6ttl& aAddress) {
    in6_addr ip;
    std::memcpy(&ip, &aAddress.ip6addr, sizeof ip);
    return CIpBytes::OfIpv6(ip);
}

// aParse reads the addresses of one family, with the shortest time to live of each and its aliases.
template <class Address>
int ParseAddresses(int (*aParse)(const unsigned char*, int, hostent**, Address*, int*), const unsigned char* aReply,
                   int aLength, CDnsAnswer& aAnswer) {
    Address found[CDnsAnswer::MAX_ADDRESSES];
    int nFound = CDnsAnswer::MAX_ADDRESSES;
    const int nStatus = aParse(aReply, aLength, nullptr, found, &nFound);
    if (nStatus != ARES_SUCCESS || nFound <= 0)
        return nStatus == ARES_SUCCESS ? ARES_ENODATA : nStatus;
    std::vector<CIpBytes> addresses;
    DWORD dwTtl = CDnsAnswer::MAX_TTL;
    for (const Address& address : std::span(found, static_cast<size_t>(nFound))) {
        addresses.push_back(IpOf(address));
        dwTtl = std::min(dwTtl, TtlOf(address.ttl));
    }
    aAnswer = CDnsAnswer::Found(std::move(addresses), dwTtl);
    return ARES_SUCCESS;
}

EDnsAnswer StateOf(int aStatus) {
    if (aStatus == ARES_ENODATA)
        return EDnsAnswer::NO_RECORD;
    return aStatus == ARES_ENOTFOUND || aStatus == ARES_EBADNAME ? EDnsAnswer::NO_NAME : EDnsAnswer::FAILED;
}

CDnsAnswer AnswerOf(BYTE aFamily, int aStatus, const unsigned char* aReply, int aLength) {
    CDnsAnswer answer;
    if (aStatus == ARES_SUCCESS)
        aStatus = aFamily == 4 ? ParseAddresses(ares_parse_a_reply, aReply, aLength, answer)
                               : ParseAddresses(ares_parse_aaaa_reply, aReply, aLength, answer);
    return aStatus == ARES_SUCCESS ? answer : CDnsAnswer::Without(StateOf(aStatus), ares_strerror(aStatus));
}

// Servers know no names of this domain, and must not see them (RFC 7686).
BOOL IsHidden(std::string_view aName) {
    if (aName.ends_with('.'))
        aName.remove_suffix(1);
    return aName == "onion" || aName.ends_with(".onion");
}

}  // namespace

// The resolver library calls back inside its own functions. These callbacks only store the results. The user is called after
// the function has returned, as the last action, because the user may destroy the channel.
class CDnsChannel::CImpl : private ICmTimerHandler {
public:
    CImpl(ICmReactor& aReactor, IDnsChannelUser& aUser, const CDnsSettings& aSettings, BYTE aFamily)
        : m_Reactor(aReactor), m_User(aUser), m_byFamily(aFamily) {
        Open_i(aSettings);
    }
    ~CImpl() override;

    std::vector<CCmString> GetFullNames(const CCmString& aName) const;
    BOOL Query(const CDnsQuestion& aQuestion, const CCmString& aFullName);
    void Process(HANDLE aRead, HANDLE aWrite);
    void OnSocketClosed(HANDLE aFd);

private:
    // One question under way; Query creates it, its reply deletes it.
    struct CUnderWay {
        CImpl& m_Impl;
        CDnsQuestion m_Question;
    };
    class CSocket;

    static void OnReply(void* aUnderWay, int aStatus, int aTimeouts, unsigned char* aReply, int aLength);
    static void OnSocketState(void* aThis, ares_socket_t aFd, int aReadable, int aWritable);
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

    void Open_i(const CDnsSettings& aSettings);
    void SetServers_i(const CDnsSettings& aSettings);
    void LoadSearch_i();
    void Watch_i(HANDLE aFd, long aMask);
    BOOL ArmTimer_i();
    void Finish_i();

    ICmReactor& m_Reactor;
    IDnsChannelUser& m_User;
    const BYTE m_byFamily;
    std::unique_ptr<ares_channeldata, decltype(&ares_destroy)> m_pChannel{nullptr, &ares_destroy};  // null: not created
    std::unordered_map<HANDLE, std::unique_ptr<CSocket>> m_Sockets;
    std::vector<CCmString> m_Domains;  // to search
    size_t m_stDots = 1;               // a name with so many is tried as it is first
    std::vector<CDnsReply> m_Replies;  // not passed to the user yet
    BOOL m_bNoMemory = FALSE;          // for a reply
};

// One of the resolver library's sockets, which that library opens and closes.
class CDnsChannel::CImpl::CSocket final : public ACmEventHandler {
public:
    CSocket(CImpl& aImpl, HANDLE aFd) : m_Impl(aImpl), m_Fd(aFd) {}
    ~CSocket() override { m_Impl.m_Reactor.RemoveHandler(this, ALL_EVENTS_MASK); }

    HANDLE GetHandle() const override { return m_Fd; }
    // This object may be deleted when Process returns.
    int OnInput(HANDLE aFd) override {
        m_Impl.Process(aFd, ARES_SOCKET_BAD);
        return 0;
    }
    int OnOutput(HANDLE aFd) override {
        m_Impl.Process(ARES_SOCKET_BAD, aFd);
        return 0;
    }
    int OnClose(HANDLE aFd, long) override {
        m_Impl.OnSocketClosed(aFd);
        return 0;
    }

    long m_lMask = 0;  // set by the library

private:
    CImpl& m_Impl;
    const HANDLE m_Fd;
};

void CDnsChannel::CImpl::Open_i(const CDnsSettings& aSettings) {
    static const int s_nLibrary = ares_library_init(ARES_LIB_INIT_ALL);
    CCmString strLookups = "b";  // servers only: this library reads the hosts file
    CCmString strResolverFile = aSettings.m_strResolverFile;
    ares_options options{};
    options.flags = ARES_FLAG_NOALIASES;
    options.timeout = static_cast<int>(aSettings.m_dwTimeoutMs);
    options.tries = static_cast<int>(aSettings.m_dwTries);
    options.lookups = strLookups.data();
    options.resolvconf_path = strResolverFile.data();
    options.sock_state_cb = OnSocketState;
    options.sock_state_cb_data = this;
    ares_channel pChannel = nullptr;
    const int nRv = s_nLibrary != ARES_SUCCESS
                        ? s_nLibrary
                        : ares_init_options(&pChannel, &options,
                                            ARES_OPT_FLAGS | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_LOOKUPS |
                                                ARES_OPT_RESOLVCONF | ARES_OPT_SOCK_STATE_CB);
    if (nRv != ARES_SUCCESS) {
        CM_ERROR_TRACE_THIS("CDnsChannel::Open_i, ares_init_options() failed! err=" << ares_strerror(nRv));
        return;
    }
    m_pChannel.reset(pChannel);
    SetServers_i(aSettings);
    LoadSearch_i();
}

void CDnsChannel::CImpl::LoadSearch_i() {
    ares_options options{};
    int nMask = 0;
    if (ares_save_options(m_pChannel.get(), &options, &nMask) == ARES_ENOMEM)
        throw std::bad_alloc();
    const std::unique_ptr<ares_options, decltype(&ares_destroy_options)> pOptions(&options, &ares_destroy_options);
    m_Domains.assign(options.domains, options.domains + std::max(options.ndomains, 0));
    m_stDots = static_cast<size_t>(std::max(options.ndots, 0));
}

void CDnsChannel::CImpl::SetServers_i(const CDnsSettings& aSettings) {
    if (aSettings.m_strServers.empty())
        return;
    const int nRv = ares_set_servers_ports_csv(m_pChannel.get(), aSettings.m_strServers.c_str());
    const BOOL bIsFirst = m_byFamily == 4 || !aSettings.AsksForIpv4();  // one line for both channels
    if (nRv != ARES_SUCCESS && bIsFirst)
        CM_WARNING_TRACE_THIS("CDnsChannel::SetServers_i, not a list of servers, ignored. Servers=" << aSettings.m_strServers);
}

CDnsChannel::CImpl::~CImpl() {
    m_pChannel.reset();  // calls back for every question and socket
    m_Sockets.clear();
    m_Reactor.CancelTimer(this);
}

std::vector<CCmString> CDnsChannel::CImpl::GetFullNames(const CCmString& aName) const {
    if (aName.ends_with('.'))
        return {aName};
    std::vector<CCmString> names;
    for (const CCmString& strDomain : m_Domains)
        names.push_back(aName + (strDomain == "." ? "" : ".") + strDomain);
    const auto stDots = static_cast<size_t>(std::count(aName.begin(), aName.end(), '.'));
    names.insert(stDots >= m_stDots ? names.begin() : names.end(), aName);
    return names;
}

BOOL CDnsChannel::CImpl::Query(const CDnsQuestion& aQuestion, const CCmString& aFullName) {
    if (!m_pChannel)
        m_Replies.push_back({aQuestion, m_byFamily, CDnsAnswer::Without(EDnsAnswer::FAILED, NO_CHANNEL)});
    else if (IsHidden(aFullName))
        m_Replies.push_back({aQuestion, m_byFamily, CDnsAnswer::Without(EDnsAnswer::NO_NAME, ares_strerror(ARES_ENOTFOUND))});
    else
        ares_query(m_pChannel.get(), aFullName.c_str(), ns_c_in, m_byFamily == 4 ? ns_t_a : ns_t_aaaa, OnReply,
                   new CUnderWay{*this, aQuestion});
    return ArmTimer_i();
}

void CDnsChannel::CImpl::OnReply(void* aUnderWay, int aStatus, int, unsigned char* aReply, int aLength) {
    const std::unique_ptr<CUnderWay> pUnderWay(static_cast<CUnderWay*>(aUnderWay));
    CImpl& impl = pUnderWay->m_Impl;
    if (aStatus != ARES_EDESTRUCTION && !WithMemory([&] {
            impl.m_Replies.push_back(
                {pUnderWay->m_Question, impl.m_byFamily, AnswerOf(impl.m_byFamily, aStatus, aReply, aLength)});
        }))
        impl.m_bNoMemory = TRUE;
}

void CDnsChannel::CImpl::OnSocketState(void* aThis, ares_socket_t aFd, int aReadable, int aWritable) {
    const long lMask = (aReadable ? ACmEventHandler::READ_MASK : ACmEventHandler::NULL_MASK) |
                       (aWritable ? ACmEventHandler::WRITE_MASK : ACmEventHandler::NULL_MASK);
    static_cast<CImpl*>(aThis)->Watch_i(aFd, lMask);
}

void CDnsChannel::CImpl::Watch_i(HANDLE aFd, long aMask) {
    if (aMask == ACmEventHandler::NULL_MASK) {
        m_Sockets.erase(aFd);
        return;
    }
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    WithMemory([&] {
        std::unique_ptr<CSocket>& pSocket = m_Sockets[aFd];
        if (!pSocket)
            pSocket = std::make_unique<CSocket>(*this, aFd);
        pSocket->m_lMask = aMask;
        rv = m_Reactor.RegisterHandler(pSocket.get(), aMask);
    });
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        m_Sockets.erase(aFd);
    if (rv != CM_OK && rv != CM_ERROR_FOUND)
        CM_ERROR_TRACE_THIS("CDnsChannel::Watch_i, RegisterHandler() failed! rv=" << rv);  // its questions time out
}

void CDnsChannel::CImpl::Process(HANDLE aRead, HANDLE aWrite) {
    ares_process_fd(m_pChannel.get(), aRead, aWrite);
    Finish_i();
}

// The reactor has removed the handler. The library detects the cause when it uses the socket; if it keeps the socket, it is
// watched again.
void CDnsChannel::CImpl::OnSocketClosed(HANDLE aFd) {
    ares_process_fd(m_pChannel.get(), aFd, aFd);
    const auto found = m_Sockets.find(aFd);
    if (found != m_Sockets.end())
        Watch_i(aFd, found->second->m_lMask);
    Finish_i();
}

void CDnsChannel::CImpl::OnTimeout(const CCmTimeValue&, void*) {
    if (m_pChannel)
        ares_process_fd(m_pChannel.get(), ARES_SOCKET_BAD, ARES_SOCKET_BAD);
    Finish_i();
}

// FALSE: there is no memory for a timer, so no answer would come.
BOOL CDnsChannel::CImpl::ArmTimer_i() {
    timeval next{};
    CmResult rv = CM_OK;
    if (!m_Replies.empty() || m_bNoMemory)
        rv = m_Reactor.ScheduleTimer(this, nullptr, CCmTimeValue::s_tvZero, 1);
    else if (m_pChannel && ares_timeout(m_pChannel.get(), nullptr, &next))
        rv = m_Reactor.ScheduleTimer(this, nullptr, CCmTimeValue::FromUsec(CCmTimeValue(next).GetTotalInUsec() + 1000), 1);
    else
        m_Reactor.CancelTimer(this);
    return rv == CM_OK || rv == CM_ERROR_FOUND;
}

// The last action of every turn, see above.
void CDnsChannel::CImpl::Finish_i() {
    std::vector<CDnsReply> replies = std::exchange(m_Replies, {});
    const BOOL bNoMemory = std::exchange(m_bNoMemory, FALSE);
    if (!ArmTimer_i() || bNoMemory)
        m_User.OnDnsNoMemory();
    else if (!replies.empty())
        m_User.OnDnsReplies(std::move(replies));
}

CDnsChannel::CDnsChannel(ICmReactor& aReactor, IDnsChannelUser& aUser, const CDnsSettings& aSettings, BYTE aFamily)
    : m_pImpl(std::make_unique<CImpl>(aReactor, aUser, aSettings, aFamily)) {}

CDnsChannel::~CDnsChannel() = default;

std::vector<CCmString> CDnsChannel::GetFullNames(const CCmString& aName) const { return m_pImpl->GetFullNames(aName); }

BOOL CDnsChannel::Query(const CDnsQuestion& aQuestion, const CCmString& aFullName) {
    return m_pImpl->Query(aQuestion, aFullName);
}

}  // namespace talvo
