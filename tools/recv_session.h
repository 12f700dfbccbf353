// The session of one sender in `talvo recv`.
#pragma once

#include <memory>
#include <string>

#include "talvo/talvo.h"
#include "tools/console.h"
#include "tools/frame.h"
#include "tools/incoming_file.h"
#include "tools/progress_meter.h"
#include "tools/sha256.h"

namespace tool {

class RecvSession;

class RecvSessionOwner {
public:
    // The peer has proved to be a sender. false: do not serve it.
    virtual bool OnSessionBegin(RecvSession& aSession) = 0;
    // The last call, which may delete the session. aWell: the sender sent BYE and all its files were kept.
    virtual void OnSessionEnd(RecvSession& aSession, bool aWell) = 0;
    virtual ~RecvSessionOwner() = default;
};

// The common data of all sessions; outlives them.
struct RecvContext {
    RecvSessionOwner& m_Owner;
    Console& m_Console;
    ProgressMeter& m_Meter;
    int m_nDirectory;
    bool m_bForce;
    bool m_bSignsOfLife;  // the connection type closes connections after a long silence
};

// Receives one file after the other, and answers each. Disconnects a peer that breaks the rules of tools/frame.h.
class RecvSession : private ICmTransportSink, private FrameSink, private CCmTimerWrapperIDSink {
public:
    RecvSession(const RecvContext& aContext, ICmTransport* aTransport);
    ~RecvSession() override;  // does not call the owner; removes a file under way
    RecvSession(const RecvSession&) = delete;
    RecvSession& operator=(const RecvSession&) = delete;

    CmResult Open();

private:
    enum EState {
        WAIT_HELLO,  // the timer ends it
        IDLE,        // between two files
        RECEIVING,   // m_pFile is set; the timer sends signs of life, if wanted
        SKIPPING     // the file was refused during its transfer: its END or ABORT follows
    };

    // A file under way.
    struct File {
        File(int aDirectory, std::string aName, uint64_t aSize)
            : m_strName(std::move(aName)), m_ullSize(aSize), m_llStarted(CCmClock::GetTimeOfDayUsec()), m_Disk(aDirectory) {}

        const std::string m_strName;
        const uint64_t m_ullSize;
        const int64_t m_llStarted;
        uint64_t m_ullGot = 0;
        Sha256 m_Hash;
        IncomingFile m_Disk;
    };

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}  // no send is ever partial here, see Answer
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    // These return false if the session has to end: m_strFault is the reason, or the sender sent BYE.
    bool OnFrame(EFrame aType, std::string_view aPayload) override;
    bool OnData(std::string_view aPiece) override;
    bool OnHello(std::string_view aPayload);
    bool OnFile(std::string_view aPayload);
    bool OnEnd(std::string_view aHash);
    bool OnAbort(std::string_view aReason);
    bool OnBye();
    bool Fault(std::string_view aText);
    bool Answer(std::string_view aFrame);
    bool Accept(const std::string& aName, uint64_t aSize);
    bool Keep(std::string_view aHash);
    bool Refuse(const std::string& aName, const std::string& aReason);
    bool RefuseCurrent(const std::string& aReason);

    template <class Step>
    void EndUnless(const Step& aStep);
    void CloseFile();
    void ReportKept(std::string_view aHash) const;
    void ReportEnd();
    void End();  // the owner may delete this in it

    const RecvContext& m_Context;
    CCmRefPtrT<ICmTransport> m_pTransport;
    const std::string m_strPeer;
    CCmTimerWrapperID m_Timer;
    FrameParser m_Parser;
    EState m_State = WAIT_HELLO;
    std::unique_ptr<File> m_pFile;
    int m_nRefused = 0;
    bool m_bSaidBye = false;
    std::string m_strFault;  // the reason for the end of the session; empty after BYE
};

}  // namespace tool
