#include "talvo/base/reference_control.h"

#include "talvo/base/ref_ptr.h"
#include "talvo/event/event_delete.h"
#include "talvo/event/later_report.h"
#include "talvo/event/timer_delete.h"
#include "tests/support/event_helpers.h"

namespace {

class CLate : public CCmReferenceControlTimerDeleteT<CCmMutexThread> {
public:
    explicit CLate(std::atomic<int>& aDead, CLate* aChild = nullptr) : m_Dead(aDead), m_pChild(aChild) {}
    ~CLate() override { ++m_Dead; }

private:
    std::atomic<int>& m_Dead;
    CCmRefPtrT<CLate> m_pChild;
};

struct CTarget {
    explicit CTarget(std::atomic<int>& aDead) : m_Dead(aDead) {}
    ~CTarget() { ++m_Dead; }
    std::atomic<int>& m_Dead;
};

struct CReporter : CCmReferenceControlT<CCmMutexNullSingleThread> {
    CReporter(std::atomic<int>& aDead, int& aReports) : m_Dead(aDead), m_nReports(aReports) {}
    ~CReporter() override { ++m_Dead; }
    void Report() { ++m_nReports; }

    std::atomic<int>& m_Dead;
    int& m_nReports;
    talvo::CLaterReportT<CReporter, &CReporter::Report> m_Later{*this};
};

}  // namespace

// Whichever thread class ends first, and also what dies only because another object did.
TEST(ReferenceControlTest, PendingDeletionsHappenWhenTheThreadEnds) {
    for (const auto kind : {CScopedThread::REACTOR, CScopedThread::TASK}) {
        std::atomic<int> nDead{0};
        {
            CScopedThread thread(kind);
            thread->GetLink().Call([&] {
                thread->Stop();
                thread->GetLink().PostEvent(new CCmEventDeleteT<CTarget>(new CTarget(nDead)));
                CCmRefPtrT<CLate>(new CLate(nDead, new CLate(nDead))).Reset();
                return CM_OK;
            });
            thread.End();
        }
        EXPECT_EQ(3, nDead);
    }
}

TEST(ReferenceControlTest, ALateReportEndsWithTheLastReferenceOfOthers) {
    std::atomic<int> nDead{0};
    int nReports = 0;
    CScopedThread thread(CScopedThread::TASK);
    for (const BOOL bReleases : {FALSE, TRUE}) {
        CCmRefPtrT<CReporter> pReporter;
        thread->GetLink().Call([&] {
            pReporter = new CReporter(nDead, nReports);
            pReporter->m_Later.Arm();
            if (bReleases)
                pReporter.Reset();
            return CM_OK;
        });
        thread->GetLink().Call([&] {
            pReporter.Reset();
            return CM_OK;
        });
    }
    thread.End();
    EXPECT_EQ(2, nDead);
    EXPECT_EQ(1, nReports);
}
