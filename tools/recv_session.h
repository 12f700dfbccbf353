// The session of one sender in `talvo recv`.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "talvo/talvo.h"
#include "tools/console.h"
#include "tools/frame.h"
#include "tools/incoming_file.h"
#include "tools/outbox.h"
#include "tools/progress_meter.h"
#include "tools/shared_secret.h"

namespace tool {

class RecvSession;

class RecvSessionOwner {
public:
    // The peer has proved to be a sender, with the secret if there is one, and begins its first file or folder. false: do not
    // serve it.
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
    const std::shared_ptr<IncomingFolder> m_pOut;
    const SharedSecret m_Secret;
    bool m_bForce;
    DWORD m_dwSilenceMs;  // after which a sender is dropped
};

// Receives files and folders, several at a time, and answers each. Disconnects a peer that breaks the rules of
// docs/transfer.md.
class RecvSession : private ICmTransportSink, private FrameSink, private CCmTimerWrapperIDSink {
public:
    RecvSession(const RecvContext& aContext, ICmTransport* aTransport);
    ~RecvSession() override;  // does not call the owner; ends the files under way
    RecvSession(const RecvSession&) = delete;
    RecvSession& operator=(const RecvSession&) = delete;

    CmResult Open();

private:
    enum EState {
        WAIT_HELLO,  // the timer ends it
        WAIT_PROOF,  // likewise
        SERVING,     // the timer sends signs of life
        OVER         // the owner may delete it
    };

    // A file under way.
    struct File {
        File(std::shared_ptr<IncomingFolder> aFolder, const FrameEntry& aEntry, bool aReplace)
            : m_strPath(aFolder->GetPath(aEntry.m_strName)),
              m_ullSize(aEntry.m_ullSize),
              m_Disk(std::move(aFolder), aEntry, aReplace) {}

        const std::string m_strPath;  // for people
        const uint64_t m_ullSize;     // UNKNOWN_SIZE: until END
        const int64_t m_llStarted = CCmClock::GetTimeOfDayUsec();
        IncomingFile m_Disk;
        uint64_t m_ullGot = 0;         // bytes, with the continued ones
        uint64_t m_ullContinued = 0;   // bytes that were there
        uint64_t m_ullMetered = 0;     // bytes that the progress expects
        bool m_bOffered = false;       // the sender has not decided about the beginning
        bool m_bHashed = false;        // the beginning
        std::string m_strSendersHash;  // of the beginning; "": not known
    };

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    // These return false if the session has to end: m_Fault is the reason, or the sender sent BYE.
    bool OnFrame(EFrame aType, std::string_view aPayload) override;
    bool OnData(DWORD aId, std::string_view aPiece) override;
    bool OnIdle();
    bool IsExpectedSilence() const;
    bool IsSuspended() const;
    bool OnHello(std::string_view aPayload);
    bool OnProof(std::string_view aPayload);
    bool BeginServing();
    bool OnFile(std::string_view aPayload);
    bool OnFolder(std::string_view aPayload);
    bool OnResume(DWORD aId, std::string_view aHash);
    bool OnEnd(DWORD aId, std::string_view aHash);
    bool OnAbort(DWORD aId, std::string_view aReason);
    bool OnBye();
    bool Fault(ECause aCause, std::string_view aText);
    bool Answer(std::string_view aFrame);
    bool DecodeNew(std::string_view aPayload, FrameEntry& aEntry);
    std::shared_ptr<IncomingFolder> FindFolder(const FrameEntry& aEntry, std::string& aProblem) const;
    bool EndFolder(DWORD aId);
    bool HashBeginnings();
    bool Decide(DWORD aId, File& aFile);
    bool Keep(DWORD aId, std::string_view aHash);
    bool Refuse(DWORD aId, const std::string& aPath, const Failure& aFailure);
    // aSkip: its data follows until END or ABORT.
    bool RefuseCurrent(DWORD aId, const Failure& aFailure, bool aSkip);

    template <class Step>
    void EndUnless(const Step& aStep);
    void CloseFile(DWORD aId);
    void CloseAll();
    void ReportKept(const File& aFile, std::string_view aHash) const;
    void ReportEnd();
    void End();  // the owner may delete this in it

    const RecvContext& m_Context;
    CCmRefPtrT<ICmTransport> m_pTransport;
    const std::string m_strPeer;
    const std::string m_strChallenge;
    std::string m_strPeerChallenge;
    CCmTimerWrapperID m_Timer;
    CCmTimerWrapperID m_HashTimer;
    CCmTimerWrapperID m_IdleTimer;
    int64_t m_llHeard = 0;  // when the sender has last sent something
    Outbox m_Answers;
    FrameParser m_Parser;
    EState m_State = WAIT_HELLO;
    std::map<DWORD, File> m_Files;
    std::map<DWORD, std::shared_ptr<IncomingFolder>> m_Folders;
    std::set<DWORD> m_Skipped;  // files that were refused during their transfer: their END or ABORT follows
    int m_nRefused = 0;
    bool m_bBegan = false;  // its first file or folder
    bool m_bSaidBye = false;
    Failure m_Fault;  // the reason for the end of the session; none after BYE
};

}  // namespace tool
