#include "talvo/proxy/script/pac_store.h"

#include <algorithm>
#include <utility>

#include "talvo/base/immortal.h"
#include "talvo/base/with_memory.h"
#include "talvo/proxy/script/pac_entry.h"

namespace talvo {

namespace {

IPacTexts* MakeStore() {
    static CImmortalT<CPacStore> s_Store;
    return &*s_Store;
}

[[maybe_unused]] const BOOL s_bOffered = (IPacTexts::Set(MakeStore()), TRUE);

}  // namespace

CPacStore::CPacStore() = default;
CPacStore::~CPacStore() = default;

CmResult CPacStore::Get(const CCmString& aUrl, CPacTextPtr& aText, IPacTextSink& aSink) {
    for (const auto& [strUrl, pEntry] : m_Entries) {
        if (pEntry->IsWaiting(aSink))
            return CM_ERROR_ALREADY_INITIALIZED;
    }
    CPacEntry* pEntry = nullptr;
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    WithMemory([&] { rv = FindEntry_i(aUrl, pEntry); });
    if (rv != CM_OK)
        return rv;
    if (!std::exchange(m_bJoined, TRUE))
        JoinCurrentThread();
    return pEntry->Get(aText, aSink, ++m_ullUses);
}

CmResult CPacStore::FindEntry_i(const CCmString& aUrl, CPacEntry*& aEntry) {
    const auto found = m_Entries.find(aUrl);
    if (found == m_Entries.end()) {
        auto pEntry = std::make_unique<CPacEntry>(*this, aUrl);
        if (!pEntry->Init())
            return CM_ERROR_INVALID_ARG;
        DropOldest_i();
        if (m_Entries.size() >= MOST_URLS)
            return CM_ERROR_NOT_AVAILABLE;
        aEntry = m_Entries.emplace(aUrl, std::move(pEntry)).first->second.get();
        return CM_OK;
    }
    aEntry = found->second.get();
    return CM_OK;
}

// An entry that is being fetched may be on the stack, and stays.
void CPacStore::DropOldest_i() {
    if (m_Entries.size() < MOST_URLS)
        return;
    auto oldest = m_Entries.end();
    for (auto it = m_Entries.begin(); it != m_Entries.end(); ++it) {
        if (it->second->IsIdle() && (oldest == m_Entries.end() || it->second->GetLastUse() < oldest->second->GetLastUse()))
            oldest = it;
    }
    if (oldest != m_Entries.end())
        m_Entries.erase(oldest);
}

void CPacStore::Cancel(IPacTextSink& aSink) {
    for (const auto& [strUrl, pEntry] : m_Entries)
        pEntry->Cancel(aSink);
}

void CPacStore::SetLifetime(const CCmString& aUrl, DWORD aSeconds) {
    const auto found = m_Entries.find(aUrl);
    if (found != m_Entries.end())
        found->second->SetLifetime(aSeconds);
}

void CPacStore::Reject(const CCmString& aUrl, const CPacTextPtr& aText) {
    const auto found = m_Entries.find(aUrl);
    if (found != m_Entries.end())
        found->second->Reject(aText);
}

void CPacStore::Refresh() {
    for (const auto& [strUrl, pEntry] : m_Entries)
        pEntry->Refresh();
}

void CPacStore::OnChanged(const CCmString& aUrl) const {
    if (m_pWatcher)
        m_pWatcher->OnPacTextChanged(aUrl);
}

void CPacStore::OnThreadEnd() {
    m_Entries.clear();
    m_bJoined = FALSE;
}

}  // namespace talvo
