#include "talvo/transport/dns/dns_channel.h"

#include <ares.h>
#include <netinet/in.h>

#include <algorithm>
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

CDnsAnswer AnswerOf(const ares_addrinfo& aInfo) {
    CDnsAnswer answer;
    answer.m_dwTtl = CCmDnsCache::MAX_TTL;
    for (const ares_addrinfo_cname* p = aInfo.cnames; p; p = p->next)
        answer.m_dwTtl = std::min(answer.m_dwTtl, TtlOf(p->ttl));
    for (const ares_addrinfo_node* p = aInfo.nodes; p; p = p->ai_next) {
        if (p->ai_family != AF_INET)
            continue;
        answer.m_dwTtl = std::min(answer.m_dwTtl, TtlOf(p->ai_ttl));
        answer.m_Addresses.push_back(reinterpret_cast<const sockaddr_in*>(p->ai_addr)->sin_addr.s_addr);
    }
    return answer;
}

CDnsAnswer AnswerOf(int aStatus, const ares_addrinfo* aInfo) {
    CDnsAnswer answer;
    if (aStatus == ARES_SUCCESS && aInfo)
        answer = AnswerOf(*aInfo);
    if (!answer.m_Addresses.empty())
        return answer;
    const int nStatus = aStatus == ARES_SUCCESS ? ARES_ENODATA : aStatus;
    answer.m_strReason = ares_strerror(nStatus);
    answer.m_bNoSuchName = nStatus == ARES_ENODATA || nStatus == ARES_ENOTFOUND || nStatus == ARES_EBADNAME;
    return answer;
}

}  // namespace

// The resolver library calls back inside its own functions. These callbacks only store the results. The user is called after
// the function has returned, as the last action, because the user may destroy the channel.
class CDnsChannel::CImpl : private ICmTimerHandler {
public:
    CImpl(ICmReactor& aReactor, IDnsChannelUser& aUser, const CDnsSettings& aSettings) : m_Reactor(aReactor), m_User(aUser) {
        Open_i(aSettings);
    }
    ~CImpl() override;

    BOOL Query(const CCmString& aName);
    void Process(HANDLE aRead, HANDLE aWrite);
    void OnSocketClosed(HANDLE aFd);

private:
    // One question under way; Query creates it, its answer deletes it.
    struct CQuestion {
        CImpl& m_Impl;
        CCmString m_strName;
    };
    class CSocket;

    static void OnAnswer(void* aQuestion, int aStatus, int aTimeouts, ares_addrinfo* aInfo);
    static void OnSocketState(void* aThis, ares_socket_t aFd, int aReadable, int aWritable);
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

    void Open_i(const CDnsSettings& aSettings);
    void SetServers_i(const CCmString& aServers);
    void Watch_i(HANDLE aFd, long aMask);
    BOOL ArmTimer_i();
    void Finish_i();

    ICmReactor& m_Reactor;
    IDnsChannelUser& m_User;
    ares_channel m_pChannel = nullptr;  // owned; null: it could not be created
    std::unordered_map<HANDLE, std::unique_ptr<CSocket>> m_Sockets;
    std::vector<CDnsNamedAnswer> m_Answers;  // not passed to the user yet
    BOOL m_bNoMemory = FALSE;                // for an answer
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
    const int nRv = s_nLibrary != ARES_SUCCESS
                        ? s_nLibrary
                        : ares_init_options(&m_pChannel, &options,
                                            ARES_OPT_FLAGS | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_LOOKUPS |
                                                ARES_OPT_RESOLVCONF | ARES_OPT_SOCK_STATE_CB);
    if (nRv != ARES_SUCCESS) {
        CM_ERROR_TRACE_THIS("CDnsChannel::Open_i, ares_init_options() failed! err=" << ares_strerror(nRv));
        m_pChannel = nullptr;
        return;
    }
    SetServers_i(aSettings.m_strServers);
}

void CDnsChannel::CImpl::SetServers_i(const CCmString& aServers) {
    if (aServers.empty())
        return;
    const int nRv = ares_set_servers_ports_csv(m_pChannel, aServers.c_str());
    if (nRv != ARES_SUCCESS)
        CM_WARNING_TRACE_THIS("CDnsChannel::SetServers_i, not a list of servers, ignored. Servers=" << aServers);
}

CDnsChannel::CImpl::~CImpl() {
    if (m_pChannel)
        ares_destroy(m_pChannel);  // calls back for every question and socket
    m_Sockets.clear();
    m_Reactor.CancelTimer(this);
}

BOOL CDnsChannel::CImpl::Query(const CCmString& aName) {
    if (m_pChannel) {
        ares_addrinfo_hints hints{};
        hints.ai_family = AF_INET;
        hints.ai_flags = ARES_AI_NOSORT;  // the order of the answer; sorting would open sockets
        ares_getaddrinfo(m_pChannel, aName.c_str(), nullptr, &hints, OnAnswer, new CQuestion{*this, aName});
    } else {
        m_Answers.push_back({aName, {{}, 0, NO_CHANNEL}});
    }
    return ArmTimer_i();
}

void CDnsChannel::CImpl::OnAnswer(void* aQuestion, int aStatus, int, ares_addrinfo* aInfo) {
    const std::unique_ptr<CQuestion> pQuestion(static_cast<CQuestion*>(aQuestion));
    const std::unique_ptr<ares_addrinfo, decltype(&ares_freeaddrinfo)> pInfo(aInfo, &ares_freeaddrinfo);
    CImpl& impl = pQuestion->m_Impl;
    if (aStatus != ARES_EDESTRUCTION && !WithMemory([&] {
            impl.m_Answers.push_back({pQuestion->m_strName, AnswerOf(aStatus, aInfo)});
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
    ares_process_fd(m_pChannel, aRead, aWrite);
    Finish_i();
}

// The reactor has removed the handler. The library detects the cause when it uses the socket; if it keeps the socket, it is
// watched again.
void CDnsChannel::CImpl::OnSocketClosed(HANDLE aFd) {
    ares_process_fd(m_pChannel, aFd, aFd);
    const auto found = m_Sockets.find(aFd);
    if (found != m_Sockets.end())
        Watch_i(aFd, found->second->m_lMask);
    Finish_i();
}

void CDnsChannel::CImpl::OnTimeout(const CCmTimeValue&, void*) {
    if (m_pChannel)
        ares_process_fd(m_pChannel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
    Finish_i();
}

// FALSE: there is no memory for a timer, so no answer would come.
BOOL CDnsChannel::CImpl::ArmTimer_i() {
    timeval next{};
    CmResult rv = CM_OK;
    if (!m_Answers.empty() || m_bNoMemory)
        rv = m_Reactor.ScheduleTimer(this, nullptr, CCmTimeValue::s_tvZero, 1);
    else if (m_pChannel && ares_timeout(m_pChannel, nullptr, &next))
        rv = m_Reactor.ScheduleTimer(this, nullptr, CCmTimeValue::FromUsec(CCmTimeValue(next).GetTotalInUsec() + 1000), 1);
    else
        m_Reactor.CancelTimer(this);
    return rv == CM_OK || rv == CM_ERROR_FOUND;
}

// The last action of every turn, see above.
void CDnsChannel::CImpl::Finish_i() {
    std::vector<CDnsNamedAnswer> answers = std::exchange(m_Answers, {});
    const BOOL bNoMemory = std::exchange(m_bNoMemory, FALSE);
    if (!ArmTimer_i() || bNoMemory)
        m_User.OnDnsNoMemory();
    else if (!answers.empty())
        m_User.OnDnsAnswers(std::move(answers));
}

CDnsChannel::CDnsChannel(ICmReactor& aReactor, IDnsChannelUser& aUser, const CDnsSettings& aSettings)
    : m_pImpl(std::make_unique<CImpl>(aReactor, aUser, aSettings)) {}

CDnsChannel::~CDnsChannel() = default;

BOOL CDnsChannel::Query(const CCmString& aName) { return m_pImpl->Query(aName); }

}  // namespace talvo
