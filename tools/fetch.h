// One attempt to fetch one URL.
#pragma once

#include <memory>
#include <string>

#include "talvo/talvo.h"
#include "tools/arguments.h"
#include "tools/failure.h"
#include "tools/gzip.h"
#include "tools/output.h"
#include "tools/progress_meter.h"
#include "tools/rate_limit.h"

namespace tool {

class IFetchUser {
public:
    virtual ~IFetchUser() = default;
    // The attempt is over; the fetch may be destroyed inside. Without a failure the output is published.
    virtual void OnFetched(const Failure& aFailure) = 0;
};

// Main thread. All references outlive it.
class Fetch : private ICmChannelSink, private CCmTimerWrapperIDSink {
public:
    // aJob: one of the arguments. aOutput: has looked for the beginning that it may have.
    Fetch(const Arguments& aArguments, const GetJob& aJob, Output& aOutput, ProgressMeter& aMeter, RateLimit& aRate,
          IFetchUser& aUser);
    ~Fetch() override;
    Fetch(const Fetch&) = delete;
    Fetch& operator=(const Fetch&) = delete;

    // Without a failure OnFetched follows, never inside this call.
    Failure Start();

    uint64_t GetBytes() const { return m_ullGot; }  // of the body, as they were transferred
    uint64_t GetSize() const { return m_ullBeginning + m_ullWritten; }
    const CCmString& GetProxy() const { return m_strProxy; }  // "": none
    // The server is only temporarily unable to answer, as its status says. aSeconds (out): its wish for the time to wait, or 0.
    bool IsBusy(long& aSeconds) const;

private:
    static constexpr uint64_t UNKNOWN = UINT64_MAX;

    void OnConnect(CmResult aReason, ICmChannel* aChannel) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    Failure OpenFileUrl(CCmHttpUrl& aUrl);
    Failure OpenHttpUrl(CCmHttpUrl& aUrl);
    CmResult MakeClient(CCmHttpUrl& aUrl);
    CmResult SetRequest();
    CmResult SetHeader(const std::string& aName, const std::string& aValue);
    bool MayBeCoded() const;

    // Prepares the output for the answer.
    void ReportAnswer() const;
    Failure OnAnswer();
    Failure OnWhole();
    Failure OnRest();
    Failure OnNothingLeft();
    bool IsSameVersion(bool aIsPart) const;
    bool IsSameSize(uint64_t aSize) const;
    bool IsCoded() const;
    uint64_t GetLength() const;
    std::string GetHeader(const CCmHttpAtom& aAtom) const;
    // The strong tag, or the time of the last change if that is old enough to identify a version; "": neither.
    std::string GetVersion() const;

    Failure Take(std::string_view aPiece);
    Failure Complete();
    Failure DescribeFailure(CmResult aReason) const;
    void Pause(int64_t aUsec);
    void Finish(const Failure& aFailure);

    const Arguments& m_Arguments;
    const GetOptions& m_Options;
    const GetJob& m_Job;
    Output& m_Output;
    ProgressMeter& m_Meter;
    RateLimit& m_Rate;
    IFetchUser& m_User;
    CCmRefPtrT<ICmChannelHttpClient> m_pHttp;
    CCmRefPtrT<ICmChannel> m_pChannel;  // m_pHttp, or the channel of a file
    CCmTimerWrapperID m_Timer;          // ends a pause
    std::unique_ptr<GzipDecoder> m_pDecoder;
    const std::string m_strSource;  // see FileEdition
    uint64_t m_ullBeginning = 0;    // bytes that existed before
    uint64_t m_ullRest = UNKNOWN;   // bytes that a partial answer will have
    uint64_t m_ullGot = 0;
    uint64_t m_ullWritten = 0;
    bool m_bMetered = false;
    bool m_bSkip = false;  // ignore the body: it is not the requested file
    CCmString m_strProxy;
};

}  // namespace tool
