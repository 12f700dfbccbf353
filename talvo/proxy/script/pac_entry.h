// One URL of the store of scripts.
#pragma once

#include <vector>

#include "talvo/proxy/discovery/pac_engine.h"
#include "talvo/proxy/script/pac_fetch.h"

namespace talvo {

class CPacStore;

// The text of a URL, its expiry and its waiting sinks. In one thread.
class CPacEntry : private IPacFetchSink {
public:
    CPacEntry(CPacStore& aStore, CCmString aUrl) : m_Store(aStore), m_strUrl(std::move(aUrl)) {}
    CPacEntry(const CPacEntry&) = delete;
    CPacEntry& operator=(const CPacEntry&) = delete;

    // FALSE: the scheme is none of the three, or the URL has user information.
    BOOL Init() { return m_Url.Init(m_strUrl) && m_Url.GetHostName().find('@') == CCmString::npos; }

    // As IPacTexts::Get. aUse: the number of this call, for GetLastUse.
    CmResult Get(CPacTextPtr& aText, IPacTextSink& aSink, uint64_t aUse);
    void Cancel(const IPacTextSink& aSink) { std::erase(m_Sinks, &aSink); }
    BOOL IsWaiting(const IPacTextSink& aSink) const;
    void SetLifetime(DWORD aSeconds);
    void Reject(const CPacTextPtr& aText);
    void Refresh();

    BOOL IsIdle() const { return !m_bFetching && !m_bNotifying; }
    uint64_t GetLastUse() const { return m_ullLastUse; }

private:
    void OnPacFetched(CPacFetched& aFetched) override;

    BOOL IsDue_i() const;
    CmResult Fetch_i();
    void Fail_i(CmResult aReason, const CCmString& aError);
    void Retry_i();
    BOOL Take_i(CPacFetched& aFetched);
    void Notify_i(CmResult aReason, const CCmString& aError);

    CPacStore& m_Store;
    const CCmString m_strUrl;
    CCmHttpUrl m_Url;
    CPacFetch m_Fetch;
    BOOL m_bFetching = FALSE;
    BOOL m_bNotifying = FALSE;
    CPacTextPtr m_pText;  // null: never fetched
    CPacTextPtr m_pRejected;
    CPacMarks m_Marks;
    int64_t m_llFetched = 0;      // when the text was fetched, microseconds
    int64_t m_llDue = INT64_MIN;  // when the next fetch may begin
    DWORD m_dwFailures = 0;       // fetches in a row that have failed or brought a rejected text
    uint64_t m_ullLastUse = 0;
    std::vector<IPacTextSink*> m_Sinks;  // not owned
};

}  // namespace talvo
