// The client behind `talvo get`.
#pragma once

#include <memory>
#include <string>

#include "talvo/talvo.h"
#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/console.h"
#include "tools/output.h"
#include "tools/partial_file.h"
#include "tools/progress_report.h"

namespace tool {

// Fetches one URL and finishes the application: EXIT_OK if all of it was there. Main thread; the arguments, the application and
// the console outlive it.
class Getter : private ICmChannelSink {
public:
    Getter(const Arguments& aArguments, Application& aApplication, Console& aConsole);
    ~Getter() override;
    Getter(const Getter&) = delete;
    Getter& operator=(const Getter&) = delete;

    void Start();

private:
    static constexpr uint64_t UNKNOWN = UINT64_MAX;

    void OnConnect(CmResult aReason, ICmChannel* aChannel) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

    std::string MakeOutput();
    std::string OpenFileUrl(CCmHttpUrl& aUrl);
    std::string OpenHttpUrl(CCmHttpUrl& aUrl);
    void AskForRest();

    // What the answer makes of the output; "" or what is wrong with it.
    std::string OnAnswer();
    std::string OnWhole();
    bool IsSameVersion(bool aIsPart) const;
    std::string OnRest();
    std::string OnNothingLeft();
    std::string GetHeader(const CCmHttpAtom& aAtom) const;
    // A weak tag does not tell versions apart byte by byte; a time of change does as well as it can.
    std::string GetVersion() const;

    std::string DescribeFailure(CmResult aReason) const;
    void Deliver();
    void Finish(const std::string& aProblem);

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    ProgressReport m_Progress;
    std::unique_ptr<Output> m_pOutput;
    PartialFile* m_pFile = nullptr;  // that, if it is one
    CCmRefPtrT<ICmChannelHttpClient> m_pHttp;
    CCmRefPtrT<ICmChannel> m_pChannel;  // that, or the file's
    uint64_t m_ullBeginning = 0;        // bytes that were there
    uint64_t m_ullSize = 0;             // announced
    uint64_t m_ullRest = UNKNOWN;       // bytes that the answer is to bring, if it is a part
    uint64_t m_ullGot = 0;
    bool m_bMetered = false;
    bool m_bSkip = false;  // the body is not what was asked for
    int64_t m_llStarted = 0;
};

}  // namespace tool
