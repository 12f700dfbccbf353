// The client of `talvo get`.
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

// Fetches one URL and finishes the application, with EXIT_OK if all of it arrived. Main thread. The arguments, the application
// and the console outlive it.
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
    CmResult MakeClient(CCmHttpUrl& aUrl);
    void AskForRest();

    // Prepares the output for the answer. Returns "" or an error text.
    std::string OnAnswer();
    std::string OnWhole();
    bool IsSameVersion(bool aIsPart) const;
    std::string OnRest();
    std::string OnNothingLeft();
    std::string GetHeader(const CCmHttpAtom& aAtom) const;
    // The strong tag, or the time of the last change: a weak tag does not identify a version byte by byte.
    std::string GetVersion() const;

    std::string DescribeFailure(CmResult aReason) const;
    void Deliver();
    void Finish(const std::string& aProblem);

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    ProgressReport m_Progress;
    std::unique_ptr<Output> m_pOutput;
    PartialFile* m_pFile = nullptr;  // m_pOutput if it is a PartialFile
    CCmRefPtrT<ICmChannelHttpClient> m_pHttp;
    CCmRefPtrT<ICmChannel> m_pChannel;  // m_pHttp, or the channel of a file
    uint64_t m_ullBeginning = 0;        // bytes that existed before
    uint64_t m_ullSize = 0;             // announced
    uint64_t m_ullRest = UNKNOWN;       // bytes that a partial answer will have
    uint64_t m_ullGot = 0;
    bool m_bMetered = false;
    bool m_bSkip = false;  // ignore the body: it is not the requested file
    int64_t m_llStarted = 0;
    CCmString m_strServer;  // the proxy server of the answer; "": none
};

}  // namespace tool
