#include "tools/receiver.h"

#include "tools/connection_type.h"
#include "tools/listening.h"
#include "tools/memory.h"

namespace tool {

Receiver::Receiver(const Arguments& aArguments, std::shared_ptr<IncomingFolder> aOut, Application& aApplication,
                   Console& aConsole)
    : m_Arguments(aArguments),
      m_Application(aApplication),
      m_Console(aConsole),
      m_Progress(aConsole),
      m_Context{*this,
                aConsole,
                m_Progress.GetMeter(),
                std::move(aOut),
                SharedSecret(aArguments.m_strSecret),
                aArguments.m_bForce,
                aArguments.m_dwSilenceMs} {}

Receiver::~Receiver() {
    if (m_pAcceptor)
        if (!ConnectsAgain(m_Arguments.m_dwType))
            m_pAcceptor->StopListen(CM_OK);
}

void Receiver::Start() {
    m_Progress.Start();
    if (!StartListening(m_Arguments, this, m_Console, m_pAcceptor))
        m_Application.Finish(EXIT_FAILED);
}

void Receiver::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    if (aReason != CM_OK)
        return;
    // Without memory for it the sender is disconnected. The others stay.
    const BOOL bMemory = talvo::WithMemory([&] {
        auto pSession = std::make_unique<RecvSession>(m_Context, aTrpt);
        if (pSession->Open() == CM_OK)
            m_Sessions.emplace(pSession.get(), std::move(pSession));
    });
    if (!bMemory)
        ComplainOfMemory();
}

bool Receiver::OnSessionBegin(RecvSession& aSession) {
    if (!m_Arguments.m_bOnce)
        return true;
    if (m_pOnly)
        return false;
    m_pOnly = &aSession;
    m_pAcceptor->StopListen(CM_OK);
    return true;
}

void Receiver::OnSessionEnd(RecvSession& aSession, bool aWell) {
    const bool bWasOnly = &aSession == m_pOnly;
    m_Sessions.erase(&aSession);
    if (bWasOnly)
        m_Application.Finish(aWell ? EXIT_OK : EXIT_FAILED);
}

}  // namespace tool
