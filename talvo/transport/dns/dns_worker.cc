#include "talvo/transport/dns/dns_worker.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/reactor.h"

namespace talvo {

// A look-up at the servers, with the timer of its grace.
class CDnsWorker::CRunning final : public ICmTimerHandler {
public:
    CRunning(CDnsWorker& aWorker, uint64_t aId, CDnsLookUp aLookUp)
        : m_LookUp(std::move(aLookUp)), m_ullId(aId), m_Worker(aWorker) {}
    ~CRunning() override { m_Worker.m_Reactor.CancelTimer(this); }

    void StartGrace() {
        const CmResult rv = m_Worker.m_Reactor.ScheduleTimer(this, nullptr, CCmTimeValue(0, CDnsLookUp::GRACE_MSEC * 1000), 1);
        if (rv != CM_OK && rv != CM_ERROR_FOUND)
            throw std::bad_alloc();
    }
    void OnTimeout(const CCmTimeValue&, void*) override { m_Worker.OnGraceOver(m_ullId); }  // deletes this

    CDnsLookUp m_LookUp;
    const uint64_t m_ullId;
    BOOL m_bReady = FALSE;

private:
    CDnsWorker& m_Worker;
};

CDnsWorker::CDnsWorker(ICmReactor& aReactor, IDnsWorkerUser& aUser) : m_Reactor(aReactor), m_User(aUser) {}

CDnsWorker::~CDnsWorker() = default;

// If memory runs out, everything starts again with the next question.
template <class Work>
void CDnsWorker::Do_i(Work aWork) {
    if (!WithMemory(aWork))
        OnDnsNoMemory();
}

void CDnsWorker::OnDnsNoMemory() {
    m_bLoaded = FALSE;
    m_pIpv4.reset();
    m_pIpv6.reset();
    m_Running.clear();
    m_stUnready = 0;
    m_Waiting.clear();
    m_User.OnDnsNoMemory();
}

void CDnsWorker::Load_i() {
    m_dwGeneration = m_User.GetGeneration();
    m_Settings = CDnsSettings::Read();
    const CmResult rv = m_Hosts.Load(m_Settings.m_strHostsFile);
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (rv != CM_OK)
        CM_WARNING_TRACE_THIS("CDnsWorker::Load_i, no hosts file. path=" << m_Settings.m_strHostsFile);
    m_pIpv4.reset();
    m_pIpv6.reset();
    if (m_Settings.AsksForIpv4())
        m_pIpv4.reset(new CDnsChannel(m_Reactor, *this, m_Settings, 4));
    if (m_Settings.AsksForIpv6())
        m_pIpv6.reset(new CDnsChannel(m_Reactor, *this, m_Settings, 6));
    m_bLoaded = TRUE;
}

void CDnsWorker::Refresh() {
    Do_i([this] { RefreshIfChanged_i(); });
}

void CDnsWorker::RefreshIfChanged_i() {
    if (!m_bLoaded)
        Load_i();
    if (m_dwGeneration == m_User.GetGeneration())
        return;
    CM_INFO_TRACE_THIS("CDnsWorker::Refresh, settings or files have changed. under way=" << m_stUnready + m_Waiting.size());
    std::deque<CWaiting> again = std::exchange(m_Waiting, {});
    for (const auto& [ullId, pRunning] : m_Running) {
        CDnsLookUp& lookUp = pRunning->m_LookUp;
        if (!pRunning->m_bReady) {
            again.push_back({lookUp.GetName(), TRUE});
            continue;
        }
        lookUp.GiveUp("the settings have changed");
        m_User.OnDnsNews(m_dwGeneration, EDnsNews::LATE, lookUp.GetName(), lookUp.GetAnswers());
    }
    m_Running.clear();
    m_stUnready = 0;
    Load_i();
    for (const CWaiting& waiting : again)
        Ask_i(waiting.m_strName, waiting.m_bForced);
}

void CDnsWorker::Start(const CCmString& aName, BOOL aForced) {
    Do_i([&] {
        RefreshIfChanged_i();
        Ask_i(aName, aForced);
    });
}

void CDnsWorker::Ask_i(const CCmString& aName, BOOL aForced) {
    if (AnswerFromHosts_i(aName))
        return;
    m_Waiting.push_back({aName, aForced});
    AskWaiting_i();
}

// A server is not asked for "localhost", also if the file has only addresses of the family that the settings exclude.
// FALSE: there is no usable address, or the settings have changed. Then a Refresh follows, which asks for this name again
// like the other ones.
BOOL CDnsWorker::AnswerFromHosts_i(const CCmString& aName) {
    std::vector<CIpBytes> addresses;
    for (const std::vector<CIpBytes>* pKnown : {m_Hosts.Find(aName), CDnsHosts::FindBuiltIn(aName)}) {
        if (pKnown && addresses.empty())
            std::copy_if(pKnown->begin(), pKnown->end(), std::back_inserter(addresses),
                         [this](const CIpBytes& ip) { return m_Settings.Allows(ip); });
    }
    const CDnsAnswers answers = CDnsAnswers::Of(addresses, CDnsAnswer::MAX_TTL);
    return answers.HasAddress() && m_User.OnDnsNews(m_dwGeneration, EDnsNews::READY, aName, answers);
}

void CDnsWorker::AskWaiting_i() {
    const size_t stFamilies = m_pIpv4 && m_pIpv6 ? 2 : 1;
    while (!m_Waiting.empty() && m_stUnready * stFamilies < MAX_AT_SERVERS && m_Running.size() < MAX_LATE) {
        const CWaiting waiting = std::move(m_Waiting.front());
        m_Waiting.pop_front();
        Begin_i(waiting);
    }
}

void CDnsWorker::Begin_i(const CWaiting& aWaiting) {
    CDnsAnswers answers = WantedAnswers_i(aWaiting);
    std::vector<CCmString> fullNames = answers.HasAddress() ? std::vector<CCmString>{answers.m_strFound}
                                                            : (m_pIpv4 ? m_pIpv4 : m_pIpv6)->GetFullNames(aWaiting.m_strName);
    const uint64_t ullId = ++m_ullLastId;
    std::unique_ptr<CRunning>& pRunning = m_Running[ullId];
    pRunning =
        std::make_unique<CRunning>(*this, ullId, CDnsLookUp(aWaiting.m_strName, std::move(fullNames), std::move(answers)));
    ++m_stUnready;
    Query_i(*pRunning);
    Advance_i(ullId);
}

// The families to ask for are pending. One that is cached still counts, so only the other one is asked for.
CDnsAnswers CDnsWorker::WantedAnswers_i(const CWaiting& aWaiting) {
    CDnsAnswers answers = aWaiting.m_bForced ? CDnsAnswers() : m_User.FindRest(aWaiting.m_strName);
    if (m_Settings.AsksForIpv4() && !answers.m_Ipv4.IsFound())
        answers.m_Ipv4.m_State = EDnsAnswer::PENDING;
    if (m_Settings.AsksForIpv6() && !answers.m_Ipv6.IsFound())
        answers.m_Ipv6.m_State = EDnsAnswer::PENDING;
    return answers;
}

// The question for IPv6 comes first, because its answer lets a connector begin.
void CDnsWorker::Query_i(CRunning& aRunning) {
    const CDnsLookUp& lookUp = aRunning.m_LookUp;
    const CDnsQuestion question = {aRunning.m_ullId, lookUp.GetFullNameIndex()};
    const auto ask = [&](const CDnsAnswer& aAnswer, CDnsChannel* aChannel) {
        if (aAnswer.m_State == EDnsAnswer::PENDING && !aChannel->Query(question, lookUp.GetFullName()))
            throw std::bad_alloc();
    };
    ask(lookUp.GetAnswers().m_Ipv6, m_pIpv6.get());
    ask(lookUp.GetAnswers().m_Ipv4, m_pIpv4.get());
}

void CDnsWorker::OnDnsReplies(std::vector<CDnsReply> aReplies) {
    Do_i([&] { TakeReplies_i(aReplies); });
}

// All replies are taken before the first look-up goes on, so that two which came together count together.
void CDnsWorker::TakeReplies_i(std::vector<CDnsReply>& aReplies) {
    for (CDnsReply& reply : aReplies) {
        const auto found = m_Running.find(reply.m_Question.m_ullLookUp);
        if (found != m_Running.end())
            found->second->m_LookUp.Take(reply.m_Question.m_stFullName, reply.m_byFamily, std::move(reply.m_Answer));
    }
    for (const CDnsReply& reply : aReplies)
        Advance_i(reply.m_Question.m_ullLookUp);
    RefreshIfChanged_i();
    AskWaiting_i();
}

void CDnsWorker::OnGraceOver(uint64_t aId) {
    Do_i([&] {
        m_Running.at(aId)->m_LookUp.EndGrace();
        Advance_i(aId);
        RefreshIfChanged_i();
        AskWaiting_i();
    });
}

// Obsolete news leave the look-up as it is: RefreshIfChanged_i asks again.
void CDnsWorker::Advance_i(uint64_t aId) {
    const auto found = m_Running.find(aId);
    if (found == m_Running.end())
        return;
    CRunning& running = *found->second;
    const CDnsLookUp& lookUp = running.m_LookUp;
    const auto notify = [&](EDnsNews aNews) {
        return m_User.OnDnsNews(m_dwGeneration, aNews, lookUp.GetName(), lookUp.GetAnswers());
    };
    switch (running.m_LookUp.Next()) {
    case CDnsLookUp::EStep::WAIT:
        return;
    case CDnsLookUp::EStep::ASK:
        return Query_i(running);
    case CDnsLookUp::EStep::EARLY:
        notify(EDnsNews::EARLY);
        return running.StartGrace();
    case CDnsLookUp::EStep::GRACE:
        return running.StartGrace();
    case CDnsLookUp::EStep::READY:
        if (!notify(EDnsNews::READY))
            return;
        running.m_bReady = TRUE;
        --m_stUnready;
        if (!lookUp.GetAnswers().IsPending())
            m_Running.erase(found);
        return;
    case CDnsLookUp::EStep::LATE:
        if (!running.m_bReady)
            return;
        notify(EDnsNews::LATE);
        m_Running.erase(found);
        return;
    }
}

}  // namespace talvo
