// One running helper program.
#pragma once

#include <memory>

#include "talvo/base/ref_ptr.h"
#include "talvo/base/reference_control.h"
#include "talvo/event/home_reactor.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/proxy/discovery/pac_engine.h"
#include "talvo/proxy/process/child_process.h"
#include "talvo/proxy/script/pac_frame.h"
#include "talvo/proxy/script/pac_name_look_up.h"

namespace talvo {

// A question on its way to its end. In one thread.
struct CPacJob : CCmReferenceControlT<CCmMutexNullSingleThread> {
    CPacTextPtr m_pScript;
    CPacQuestion m_Question;
    IPacSink* m_pSink = nullptr;  // not owned; null: cancelled, or ended
    BOOL m_bAgain = FALSE;        // an earlier helper ended before it read the question
};
using PacJobPtr = CCmRefPtrT<CPacJob>;

class CPacHelper;

class IPacHelperUser {
public:
    // The job of the helper has ended. It can run the next one, or has ended itself: OnHelperEnd follows.
    virtual void OnJobEnd(const PacJobPtr& aJob, EPacEnd aEnd, std::string_view aText) = 0;
    // The helper has ended before it read the job. OnHelperEnd follows. FALSE: no other helper will run the job.
    virtual BOOL OnJobUnread(const PacJobPtr& aJob) = 0;
    // The helper waits for a job.
    virtual void OnHelperFree() = 0;
    // The helper's process has gone, or was killed. aDied: for a failure; FALSE: it was idle. The user releases it.
    virtual void OnHelperEnd(CPacHelper& aHelper, BOOL aDied) = 0;

protected:
    virtual ~IPacHelperUser() = default;
};

// The conversation with one process, by the frames of docs/pac-helper.md and within its limits: over a limit, and after a frame
// out of order, it kills the process. In one thread, which has a reactor.
class CPacHelper final : public CCmReferenceControlT<CCmMutexNullSingleThread>,
                         private ACmEventHandler,
                         private IChildProcessSink,
                         private CCmTimerWrapperIDSink,
                         private IPacNameSink {
public:
    CPacHelper(ICmReactor& aReactor, IPacHelperUser& aUser);

    // Starts the process. Results as CChildProcess::Start.
    CmResult Start(const CCmString& aPath);

    BOOL IsFree() const { return m_State == FREE; }
    BOOL HasLoaded(uint64_t aVersion) const { return m_ullVersion == aVersion; }

    // Loads the job's script if it is not loaded, and asks. For a free helper. OnJobEnd follows, perhaps inside this call.
    void Run(const PacJobPtr& aJob);

    // Ends the process without a report.
    void Close();

private:
    enum EState {
        FREE,     // waits for a job; the timer runs for its idle end
        LOADING,  // the script was sent; the timer runs for the load
        FINDING,  // the question was sent; likewise
        ENDED     // the process is killed or has gone
    };

    ~CPacHelper() override;

    HANDLE GetHandle() const override { return m_Socket; }
    int OnInput(HANDLE aFd) override;
    int OnOutput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;
    void OnChildEnd(const CChildEnd& aEnd) override;
    void OnTimer(CCmTimerWrapperID* aId) override;
    void OnPacName(const CCmString& aAddresses) override;

    CmResult SetState_i(EState aState, const CCmTimeValue& aLimit);
    const char* TakeFrames_i();
    const char* OnFrame_i(EPacFrame aKind, std::string_view aPayload);
    const char* OnResult_i(std::string_view aPayload);
    const char* OnFailure_i(std::string_view aPayload);
    const char* OnName_i(std::string_view aPayload);
    const char* OnAlert_i(std::string_view aPayload);
    void SendLoad_i();
    void SendFind_i();
    void AddClock_i(CPacFrameWriter& aFrame) const;
    void Send_i(CPacFrameWriter& aFrame);
    void OnSocketError_i();
    BOOL IsUnread_i();
    void EndJob_i(EPacEnd aEnd, std::string_view aText);
    void Fail_i(const char* aWhy, BOOL aUnread = FALSE);

    CHomeReactor m_Reactor;
    IPacHelperUser* m_pUser;  // not owned; null after Close
    CChildProcess m_Process;
    HANDLE m_Socket = CM_INVALID_HANDLE;
    EState m_State = FREE;
    CCmTimerWrapperID m_Timer;
    CPacFrameReader m_Reader;
    CCmString m_strUnsent;
    BOOL m_bReset = FALSE;  // the process has ended before it read all that was sent
    CPacNameLookUp m_Names{*this};
    BOOL m_bNameUnderWay = FALSE;
    DWORD m_dwNames = 0;        // of the load or find under way
    DWORD m_dwOwnNames = 0;     // likewise
    DWORD m_dwAlerts = 0;       // likewise
    uint64_t m_ullVersion = 0;  // of the loaded script; 0: none
    PacJobPtr m_pJob;
};

}  // namespace talvo
