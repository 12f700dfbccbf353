#include "talvo/transport/dns/dns_worker.h"

#include <iterator>
#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

namespace talvo {

// If memory runs out, everything starts again with the next question.
template <class Work>
void CDnsWorker::Do_i(Work aWork) {
    if (!WithMemory(aWork))
        OnDnsNoMemory();
}

void CDnsWorker::OnDnsNoMemory() {
    m_pChannel.reset();
    m_AtServers.clear();
    m_Waiting.clear();
    m_User.OnDnsNoMemory();
}

void CDnsWorker::Load_i() {
    m_dwGeneration = m_User.GetGeneration();
    const CDnsSettings settings = CDnsSettings::Read();
    const CmResult rv = m_Hosts.Load(settings.m_strHostsFile);
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (rv != CM_OK)
        CM_WARNING_TRACE_THIS("CDnsWorker::Load_i, no hosts file. path=" << settings.m_strHostsFile);
    m_pChannel.reset();
    m_pChannel.reset(new CDnsChannel(m_Reactor, *this, settings));
}

void CDnsWorker::Refresh() {
    Do_i([this] { RefreshIfChanged_i(); });
}

void CDnsWorker::RefreshIfChanged_i() {
    if (!m_pChannel)
        Load_i();
    if (m_dwGeneration == m_User.GetGeneration())
        return;
    CM_INFO_TRACE_THIS("CDnsWorker::Refresh, settings or files have changed. under way=" << m_AtServers.size() +
                                                                                                m_Waiting.size());
    std::deque<CCmString> again = std::exchange(m_Waiting, {});
    again.insert(again.end(), m_AtServers.begin(), m_AtServers.end());
    m_AtServers.clear();
    Load_i();
    for (const CCmString& strName : again)
        Ask_i(strName);
}

void CDnsWorker::Start(const CCmString& aName) {
    Do_i([&] {
        RefreshIfChanged_i();
        Ask_i(aName);
    });
}

void CDnsWorker::Ask_i(const CCmString& aName) {
    const std::vector<DWORD>* pAddresses = m_Hosts.Find(aName);
    // If the settings have changed, the answer is obsolete; a Refresh follows, which asks for this name again like the other
    // ones.
    if (pAddresses && m_User.OnDnsAnswer(m_dwGeneration, {aName, {*pAddresses, CCmDnsCache::MAX_TTL, ""}}))
        return;
    m_Waiting.push_back(aName);
    AskWaiting_i();
}

void CDnsWorker::AskWaiting_i() {
    while (!m_Waiting.empty() && m_AtServers.size() < MAX_AT_SERVERS) {
        if (!m_pChannel->Query(*m_AtServers.insert(m_Waiting.front()).first))
            throw std::bad_alloc();
        m_Waiting.pop_front();
    }
}

void CDnsWorker::OnDnsAnswers(std::vector<CDnsNamedAnswer> aAnswers) {
    Do_i([&] { TakeAnswers_i(aAnswers); });
}

void CDnsWorker::TakeAnswers_i(std::vector<CDnsNamedAnswer>& aAnswers) {
    BOOL bOutOfDate = FALSE;
    for (CDnsNamedAnswer& answer : aAnswers) {
        const CCmString strName = answer.m_strName;
        if (m_User.OnDnsAnswer(m_dwGeneration, std::move(answer)))
            m_AtServers.erase(strName);
        else
            bOutOfDate = TRUE;
    }
    if (bOutOfDate)
        RefreshIfChanged_i();
    else
        AskWaiting_i();
}

}  // namespace talvo
