// One attempt to send files.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "talvo/talvo.h"
#include "tools/arguments.h"
#include "tools/console.h"
#include "tools/folder_walk.h"
#include "tools/frame.h"
#include "tools/input_watch.h"
#include "tools/outbox.h"
#include "tools/outgoing_file.h"
#include "tools/progress_meter.h"
#include "tools/rate_limit.h"
#include "tools/shared_secret.h"

namespace tool {

// The results of all attempts.
struct SendRecord {
    std::set<std::string> m_Settled;  // with --retry: the paths that earlier attempts have delivered or reported
    size_t m_stKept = 0;              // files
    bool m_bFailed = false;           // one was not delivered
};

class ISenderUser {
public:
    // The attempt is over: with a failure the connection is lost, else each file has its result. Do not destroy the sender
    // inside.
    virtual void OnSent(const Failure& aFailure) = 0;
    virtual ~ISenderUser() = default;
};

// Sends files and folders, MOST_IN_FLIGHT at a time: while the data of one is sent, the next ones are announced, and the
// answers to the last ones are under way. Gives up if the receiver is silent for too long. Main thread. All references outlive
// it.
class Sender : private ICmAcceptorConnectorSink, private ICmTransportSink, private FrameSink, private CCmTimerWrapperIDSink {
public:
    Sender(const Arguments& aArguments, Console& aConsole, ProgressMeter& aMeter, RateLimit& aRate, SendRecord& aRecord,
           ISenderUser& aUser);
    ~Sender() override;
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    // OnSent follows, perhaps inside this call.
    void Start();

    uint64_t GetBytes() const { return m_ullSent; }  // of files, so far
    // false: a part of stdin is consumed.
    bool MayRepeat() const;

private:
    enum EState {
        CONNECTING,
        WAIT_WELCOME,  // with a secret: HELLO was sent
        WAIT_PROVED,   // PROOF was sent
        RUNNING,
        CLOSING,  // BYE was sent: the receiver closes, or the timer does
        CLOSED
    };

    // A file under way.
    struct Item {
        enum EStep {
            WAIT_ACCEPT,   // FILE was sent
            CHECKING,      // the receiver has a beginning, of which the hash is being computed
            WAIT_VERDICT,  // RESUME was sent
            SENDING,
            WAIT_INPUT,  // stdin has no data
            WAIT_RESULT  // END or ABORT was sent
        };

        Item(FileHandle aFile, uint64_t aSize, DWORD aMaxPiece, std::string aPath, DWORD aFolder)
            : m_File(std::move(aFile), aSize, aMaxPiece), m_strPath(std::move(aPath)), m_dwFolder(aFolder) {}

        OutgoingFile m_File;
        const std::string m_strPath;
        const DWORD m_dwFolder;
        const int64_t m_llStarted = CCmClock::GetTimeOfDayUsec();
        EStep m_Step = WAIT_ACCEPT;
        bool m_bChanged = false;      // while it was read
        uint64_t m_ullBeginning = 0;  // bytes that the receiver has already
        uint64_t m_ullMetered = 0;    // bytes that the progress expects
        uint64_t m_ullMoved = 0;      // bytes of these that were sent
    };

    // A folder from FOLDER to the result of its END, which follows the END of each file in it.
    struct Folder {
        std::string m_strPath;
        int m_nUsers = 1;  // the walk, and the files whose END was not sent
        bool m_bRefused = false;
    };

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    // These return false if the answer breaks the protocol.
    bool OnFrame(EFrame aType, std::string_view aPayload) override;
    bool OnData(DWORD, std::string_view) override { return false; }
    bool OnWelcome(std::string_view aPayload);
    bool OnProved(std::string_view aPayload);
    bool OnDropped(std::string_view aReason);
    bool OnAccept(DWORD aId, uint64_t aOffset);
    bool OnVerdict(DWORD aId, bool aSame);
    bool OnResult(DWORD aId, std::string_view aPayload);
    bool OnFolderResult(DWORD aId, bool aKept, const std::string& aReason);

    void Survey();
    void OnSilence();
    void Pump();
    bool FillWindow();
    bool HasRoom() const;
    void Begin(FolderWalk::Entry& aEntry);
    void BeginFile(FolderWalk::Entry& aEntry);
    void BeginFolder(const FolderWalk::Entry& aEntry);
    FrameEntry MakeEntry(const FolderWalk::Entry& aEntry, uint64_t aSize);
    void LeaveFolder();
    void ReleaseFolder(DWORD aId);
    Item* FindWork(DWORD& aId);
    void Work(DWORD aId, Item& aItem);
    void Check(DWORD aId, Item& aItem);
    void SendPiece(DWORD aId, Item& aItem);
    void OnPiece(Item& aItem, uint64_t aBytes);
    void EndItem(Item& aItem, const std::string& aFrame);
    void WaitForInput(DWORD aId, Item& aItem);
    void Send(std::string_view aFrame);
    void OnSent(CmResult aResult);

    void ReportSent(const Item& aItem);
    void ReportChanged(const std::string& aPath);
    void ReportFailed(const std::string& aPath, const Failure& aFailure);
    bool IsNew(const std::string& aPath) const { return !m_Record.m_Settled.contains(aPath); }
    void Settle(const std::string& aPath);
    void Finish(const Failure& aFailure);
    void Close();

    const Arguments& m_Arguments;
    Console& m_Console;
    ProgressMeter& m_Meter;
    RateLimit& m_Rate;
    SendRecord& m_Record;
    ISenderUser& m_User;
    const SharedSecret m_Secret;
    const std::string m_strChallenge;
    std::string m_strPeerChallenge;
    FolderWalk m_Walk;
    FolderWalk m_Survey;               // goes ahead, for the sizes
    CCmTimerWrapperID m_Timer;         // the next turn of Pump, or the end of CLOSING
    CCmTimerWrapperID m_SilenceTimer;  // the end of the receiver's silence
    CCmTimerWrapperID m_SurveyTimer;   // the next turn of Survey
    int64_t m_llHeard = 0;             // when the receiver has last sent something, or was connected
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    DWORD m_dwMaxPiece = 0;  // bytes of a file in one frame
    Outbox m_Outbox;
    bool m_bBlocked = false;  // the outbox waits for OnSend
    bool m_bPaused = false;   // for the limit of the rate
    bool m_bSurveyed = false;
    FrameParser m_Parser;
    EState m_State = CONNECTING;
    DWORD m_dwLastId = OUT_FOLDER;
    bool m_bWalked = false;  // all files have begun
    std::map<DWORD, Item> m_Items;
    std::map<DWORD, Folder> m_Folders;
    std::vector<DWORD> m_vecWalk;  // the folders that the walk is in
    std::unique_ptr<InputWatch> m_pInput;
    std::vector<std::string> m_vecSettled;  // with --retry: paths that have their result
    size_t m_stFound = 0;                   // files
    uint64_t m_ullSent = 0;
};

}  // namespace tool
