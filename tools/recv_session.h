// One sender, as `talvo recv` sees it.
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
    // The peer turned out to be a sender. false: it is not to be served.
    virtual bool OnSessionBegin(RecvSession& aSession) = 0;
    // The last call, which may delete the session. aWell: the sender took its leave and all its files were kept.
    virtual void OnSessionEnd(RecvSession& aSession, bool aWell) = 0;
    virtual ~RecvSessionOwner() = default;
};

// What all sessions share; outlives them.
struct RecvContext {
    RecvSessionOwner& m_Owner;
    Console& m_Console;
    ProgressMeter& m_Meter;
    int m_nDirectory;
    bool m_bForce;
    bool m_bSignsOfLife;  // the connections end when a sender hears nothing for long
};

// Takes one file after the other, and answers each. A peer that breaks the rules of tools/frame.h is dropped.
class RecvSession : private ICmTransportSink, private FrameSink, private CCmTimerWrapperIDSink {
public:
    RecvSession(const RecvContext& aContext, ICmTransport* aTransport);
    ~RecvSession() override;  // without a call to the owner; a file under way is removed
    RecvSession(const RecvSession&) = delete;
    RecvSession& operator=(const RecvSession&) = delete;

    CmResult Open();

private:
    enum EState {
        WAIT_HELLO,  // the timer ends it
        IDLE,        // between two files
        RECEIVING,   // there is an m_pFile; the timer gives signs of life, if wanted
        SKIPPING     // the file was refused while it came: its END or ABORT follows
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

    // These return false when the session has to end: m_strFault says why, or the sender said goodbye.
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

    void CloseFile();
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
    std::string m_strFault;  // why the session ends; empty when in peace
};

}  // namespace tool
