// The engine for scripts: questions go to helper programs.
#pragma once

#include <deque>
#include <vector>

#include "talvo/event/thread_link.h"
#include "talvo/proxy/script/pac_helper.h"

namespace talvo {

// Starts a helper when a question needs one, and ends it when it has been idle for a minute or with the thread. In the network
// thread; a test may use another thread with a reactor. The thread's end drops all questions without a report.
class TALVO_API CPacHost final : public IPacEngine, private IPacHelperUser, private CCmThreadTenant {
public:
    static constexpr size_t MOST_HELPERS = 4;
    static constexpr size_t MOST_WAITING = 4096;  // questions

    CPacHost() = default;
    ~CPacHost() override;
    CPacHost(const CPacHost&) = delete;
    CPacHost& operator=(const CPacHost&) = delete;

    CmResult Find(const CPacTextPtr& aScript, const CPacQuestion& aQuestion, IPacSink& aSink) override;
    void Cancel(IPacSink& aSink) override;
    CCmString GetProblem() const override;

private:
    void OnJobEnd(const PacJobPtr& aJob, EPacEnd aEnd, std::string_view aText) override;
    BOOL OnJobUnread(const PacJobPtr& aJob) override;
    void OnHelperFree() override;
    void OnHelperEnd(CPacHelper& aHelper, BOOL aDied) override;
    void OnThreadEnd() override;

    PacJobPtr FindJob_i(const IPacSink& aSink) const;
    CCmRefPtrT<CPacHelper> ChooseHelper_i(const CPacJob& aJob);
    CCmRefPtrT<CPacHelper> StartHelper_i();
    BOOL MayStart_i() const;
    void CountDeath_i();
    void Dispatch_i();
    void Clear_i();

    std::vector<CCmRefPtrT<CPacHelper>> m_Helpers;
    std::deque<PacJobPtr> m_Waiting;
    std::vector<PacJobPtr> m_Running;
    std::vector<int64_t> m_Deaths;  // the times of the last ones, microseconds
    int64_t m_llNoStartUntil = INT64_MIN;
    CCmString m_strMissing;  // the program that could not be started, which was traced; "" after a start
    BOOL m_bJoined = FALSE;  // the thread
};

}  // namespace talvo
