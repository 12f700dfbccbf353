// The part of name resolution in the network thread.
#pragma once

#include <deque>
#include <memory>
#include <unordered_map>

#include "talvo/event/timer_queue.h"
#include "talvo/transport/dns/dns_channel.h"
#include "talvo/transport/dns/dns_hosts.h"
#include "talvo/transport/dns/dns_look_up.h"

namespace talvo {

// Which answers to a name have come.
enum class EDnsNews {
    EARLY,  // the first one, of IPv6: READY follows
    READY,  // the outcome. If some are pending, LATE follows
    LATE    // the rest
};

// Receives a worker's answers, in the network thread.
class IDnsWorkerUser {
public:
    // News of a Start. FALSE: the settings have changed since the question, so the answers are obsolete; unless the news is
    // LATE, the worker asks again. It must not destroy the worker.
    virtual BOOL OnDnsNews(DWORD aGeneration, EDnsNews aNews, const CCmString& aName, const CDnsAnswers& aAnswers) = 0;
    // Memory ran out: no question under way gets an answer. It must not destroy the worker.
    virtual void OnDnsNoMemory() = 0;
    // The cached answer of one family, when the other's has expired. Throws std::bad_alloc.
    virtual CDnsAnswers FindRest(const CCmString& aName) = 0;
    // Counts the changes of the settings.
    virtual DWORD GetGeneration() const = 0;

protected:
    virtual ~IDnsWorkerUser() = default;
};

// Answers questions from the hosts file or through the servers. Each family has a channel of its own, so that the refusal of
// one question is not taken for another's. It limits the questions, so that a burst of them and of the answers fits in the
// receive buffers. After a change of the settings it restarts all questions under way.
class CDnsWorker : private IDnsChannelUser {
public:
    CDnsWorker(ICmReactor& aReactor, IDnsWorkerUser& aUser);
    ~CDnsWorker() override;

    // READY follows, or OnDnsNoMemory; perhaps inside this call. aForced: asks for both families, even if one is cached.
    void Start(const CCmString& aName, BOOL aForced);
    // Reads settings and files again if they have changed.
    void Refresh();

private:
    static constexpr size_t MAX_AT_SERVERS = 128;  // questions of look-ups without an outcome
    static constexpr size_t MAX_LATE = 1024;       // look-ups in all, with those that wait for the rest

    struct CWaiting {
        CCmString m_strName;
        BOOL m_bForced;
    };
    class CRunning;

    void OnDnsReplies(std::vector<CDnsReply> aReplies) override;
    void OnDnsNoMemory() override;
    template <class Work>
    void Do_i(Work aWork);
    void RefreshIfChanged_i();
    void TakeReplies_i(std::vector<CDnsReply>& aReplies);
    void Load_i();
    void Ask_i(const CCmString& aName, BOOL aForced);
    BOOL AnswerFromHosts_i(const CCmString& aName);
    void AskWaiting_i();
    void Begin_i(const CWaiting& aWaiting);
    CDnsAnswers WantedAnswers_i(const CWaiting& aWaiting);
    void Advance_i(uint64_t aId);
    void Query_i(CRunning& aRunning);
    void OnGraceOver(uint64_t aId);

    ICmReactor& m_Reactor;
    IDnsWorkerUser& m_User;
    DWORD m_dwGeneration = 0;  // of the user, when the settings were read
    CDnsSettings m_Settings;
    CDnsHosts m_Hosts;
    BOOL m_bLoaded = FALSE;                // settings and files
    std::unique_ptr<CDnsChannel> m_pIpv4;  // null: not asked for
    std::unique_ptr<CDnsChannel> m_pIpv6;
    std::unordered_map<uint64_t, std::unique_ptr<CRunning>> m_Running;
    uint64_t m_ullLastId = 0;
    size_t m_stUnready = 0;  // of the running ones
    std::deque<CWaiting> m_Waiting;
};

}  // namespace talvo
