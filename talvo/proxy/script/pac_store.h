// The store of fetched scripts.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "talvo/event/thread_link.h"
#include "talvo/proxy/discovery/pac_engine.h"

namespace talvo {

class CPacEntry;

// Fetches on a question only. In the network thread; a test may use another thread with a reactor. The thread's end drops all
// texts and questions without a report.
class TALVO_API CPacStore final : public IPacTexts, private CCmThreadTenant {
public:
    static constexpr size_t MOST_URLS = 16;  // beyond it the one that was asked for longest ago is dropped

    CPacStore();
    ~CPacStore() override;
    CPacStore(const CPacStore&) = delete;
    CPacStore& operator=(const CPacStore&) = delete;

    CmResult Get(const CCmString& aUrl, CPacTextPtr& aText, IPacTextSink& aSink) override;
    void Cancel(IPacTextSink& aSink) override;
    void SetLifetime(const CCmString& aUrl, DWORD aSeconds) override;
    void Reject(const CCmString& aUrl, const CPacTextPtr& aText) override;
    void Refresh() override;
    void SetWatcher(IPacTextWatcher* aWatcher) override { m_pWatcher = aWatcher; }

    // The watcher, for the entries.
    void OnChanged(const CCmString& aUrl) const;

private:
    void OnThreadEnd() override;

    CmResult FindEntry_i(const CCmString& aUrl, CPacEntry*& aEntry);
    void DropOldest_i();

    std::map<CCmString, std::unique_ptr<CPacEntry>> m_Entries;  // by URL
    IPacTextWatcher* m_pWatcher = nullptr;                      // not owned
    uint64_t m_ullUses = 0;                                     // counts the calls of Get
    BOOL m_bJoined = FALSE;                                     // the thread
};

}  // namespace talvo
