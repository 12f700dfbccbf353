// The server of `talvo recv`.
#pragma once

#include <memory>
#include <unordered_map>

#include "talvo/talvo.h"
#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/console.h"
#include "tools/progress_report.h"
#include "tools/recv_session.h"

namespace tool {

// Listens, and owns one session for each sender. Main thread. The arguments, the application and the console outlive it.
class Receiver : private ICmAcceptorConnectorSink, private RecvSessionOwner {
public:
    Receiver(const Arguments& aArguments, std::shared_ptr<IncomingFolder> aOut, Application& aApplication, Console& aConsole);
    ~Receiver() override;

    // Begins to listen. If that fails, reports it and finishes the application.
    void Start();

private:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    bool OnSessionBegin(RecvSession& aSession) override;
    void OnSessionEnd(RecvSession& aSession, bool aWell) override;

    const Arguments& m_Arguments;
    Application& m_Application;
    Console& m_Console;
    ProgressReport m_Progress;
    const RecvContext m_Context;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::unordered_map<RecvSession*, std::unique_ptr<RecvSession>> m_Sessions;
    const RecvSession* m_pOnly = nullptr;  // with --once: the sender that is served
};

}  // namespace tool
