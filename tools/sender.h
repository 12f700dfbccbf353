// The client of `talvo send`.
#pragma once

#include <memory>
#include <string>

#include "talvo/talvo.h"
#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/console.h"
#include "tools/frame.h"
#include "tools/outbox.h"
#include "tools/outgoing_file.h"
#include "tools/progress_report.h"

namespace tool {

// Sends the files one after the other, each after the answer to the one before. Then finishes the application, with EXIT_OK if
// all were kept. Main thread. The arguments, the application and the console outlive it.
class Sender : private ICmAcceptorConnectorSink, private ICmTransportSink, private FrameSink, private CCmTimerWrapperIDSink {
public:
    Sender(const Arguments& aArguments, Application& aApplication, Console& aConsole);
    ~Sender() override;
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    void Start();

private:
    enum EState {
        CONNECTING,
        WAIT_ACCEPT,  // FILE was sent
        SENDING,      // DATA is being sent
        WAIT_RESULT,  // END or ABORT was sent
        CLOSING,      // BYE was sent: the receiver closes, or the timer does
        CLOSED
    };

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;
    void OnTimer(CCmTimerWrapperID* aId) override;
    bool OnFrame(EFrame aType, std::string_view aPayload) override;
    bool OnData(std::string_view) override { return false; }
    bool OnAccept();
    bool OnResult(std::string_view aPayload);

    void StartNextFile();
    bool StartFile(const std::string& aPath);
    void Pump();
    bool SendPiece();
    void SendEnd();
    bool Send(std::string_view aFrame);
    bool CheckSent(CmResult aResult);

    void CloseFile(bool aKept, const std::string& aReason);
    void ReportFile(const std::string& aPath, uint64_t aSize, bool aKept, const std::string& aReason);
    void GiveUp(const std::string& aText);  // the connection is lost
    void Close();

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    ProgressReport m_Progress;
    CCmTimerWrapperID m_Timer;  // the next turn of Pump, or the end of CONNECTING or CLOSING
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    DWORD m_dwMaxPiece = 0;  // bytes of a file in one frame
    Outbox m_Outbox;
    FrameParser m_Parser;
    EState m_State = CONNECTING;
    size_t m_nNextFile = 0;
    size_t m_nKept = 0;
    std::unique_ptr<OutgoingFile> m_pFile;  // from WAIT_ACCEPT to WAIT_RESULT
    int64_t m_llStarted = 0;
    std::string m_strHash;  // of the last file that was sent whole
};

}  // namespace tool
