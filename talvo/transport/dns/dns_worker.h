// The part of name resolution in the network thread.
#pragma once

#include <deque>
#include <memory>
#include <unordered_set>

#include "talvo/transport/dns/dns_channel.h"
#include "talvo/transport/dns/dns_hosts.h"

namespace talvo {

// Receives a worker's answers, in the network thread.
class IDnsWorkerUser {
public:
    // The answer to a Start. FALSE: the settings have changed since the question, so the answer is obsolete and the worker asks
    // again. It must not destroy the worker.
    virtual BOOL OnDnsAnswer(DWORD aGeneration, CDnsNamedAnswer aAnswer) = 0;
    // Memory ran out: no question under way gets an answer. It must not destroy the worker.
    virtual void OnDnsNoMemory() = 0;
    // Counts the changes of the settings.
    virtual DWORD GetGeneration() const = 0;

protected:
    virtual ~IDnsWorkerUser() = default;
};

// Answers questions from the hosts file or through the servers. It limits the questions to the servers, so that a burst of
// answers fits in the receive buffer. After a change of the settings it restarts all questions under way.
class CDnsWorker : private IDnsChannelUser {
public:
    CDnsWorker(ICmReactor& aReactor, IDnsWorkerUser& aUser) : m_Reactor(aReactor), m_User(aUser) {}

    // One answer follows, or OnDnsNoMemory; perhaps inside this call.
    void Start(const CCmString& aName);
    // Reads settings and files again if they have changed.
    void Refresh();

private:
    static constexpr size_t MAX_AT_SERVERS = 128;

    void OnDnsAnswers(std::vector<CDnsNamedAnswer> aAnswers) override;
    void OnDnsNoMemory() override;
    template <class Work>
    void Do_i(Work aWork);
    void RefreshIfChanged_i();
    void TakeAnswers_i(std::vector<CDnsNamedAnswer>& aAnswers);
    void Load_i();
    void Ask_i(const CCmString& aName);
    void AskWaiting_i();

    ICmReactor& m_Reactor;
    IDnsWorkerUser& m_User;
    DWORD m_dwGeneration = 0;  // of the user, when the settings were read
    CDnsHosts m_Hosts;
    std::unique_ptr<CDnsChannel> m_pChannel;  // null: settings and files are not read yet
    std::unordered_set<CCmString> m_AtServers;
    std::deque<CCmString> m_Waiting;
};

}  // namespace talvo
