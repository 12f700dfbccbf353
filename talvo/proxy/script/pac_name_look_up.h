// The names and addresses that scripts ask for.
#pragma once

#include "talvo/event/timer_queue.h"
#include "talvo/event/timer_wrapper_id.h"

namespace talvo {

class IPacNameSink {
public:
    // aAddresses: separated by ";"; "" if there are none, or not in time, or no memory for them.
    virtual void OnPacName(const CCmString& aAddresses) = 0;

protected:
    virtual ~IPacNameSink() = default;
};

// Answers the name questions of one helper, one at a time. In one thread, which has a reactor.
class CPacNameLookUp : private ICmObserver, private CCmTimerWrapperIDSink {
public:
    explicit CPacNameLookUp(IPacNameSink& aSink) : m_Sink(aSink) {}
    ~CPacNameLookUp() override { Cancel(); }
    CPacNameLookUp(const CPacNameLookUp&) = delete;
    CPacNameLookUp& operator=(const CPacNameLookUp&) = delete;

    static BOOL IsKind(char aKind);  // '4', '*', 'm' or 'M', see docs/pac-helper.md
    static BOOL HasName(char aKind) { return aKind == '4' || aKind == '*'; }

    // One OnPacName follows, perhaps inside this call, and after 2 s at the latest.
    void Start(char aKind, const CCmString& aName);
    void Cancel();

private:
    void OnObserve(const char* aTopic, void* aData) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    void Answer_i(const CCmString& aAddresses);

    IPacNameSink& m_Sink;
    CCmTimerWrapperID m_Timer;
    char m_cKind = 0;
    BOOL m_bWaits = FALSE;
};

}  // namespace talvo
