#include "benchmarks/msg/server.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_messages.h"

namespace msg {

// Its answers may be as long as the longest message. If the client has gone already, that is reported later.
CmResult CSession::Open(CPlace aPlace) {
    const CmResult rv = CTalvoSession::Open(aPlace);
    if (rv == CM_OK)
        bench::PrepareForMessages(GetTransport(), CS_DEFAULT_MAX_MESSAGE_LEN);
    return rv;
}

void CSession::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    const CSeen seen(aData);
    switch (seen.m_cKind) {
    case DATA:
        return Count(seen);
    case PING:
        return Answer(aData);
    case END:
        return AnswerEnd();
    case QUIT:
        kill(getpid(), SIGTERM);
        return;
    default:
        ++m_Counts.m_ullFaults;
    }
}

void CSession::Count(const CSeen& aSeen) {
    ++m_Counts.m_ullData;
    const bool bInOrder = std::exchange(m_bAnyNumber, false) || aSeen.m_ullNumber == m_ullExpected;
    if (!bInOrder || !aSeen.IsWhole())
        ++m_Counts.m_ullFaults;
    m_ullExpected = aSeen.m_ullNumber + 1;
}

void CSession::AnswerEnd() {
    CCmMessageBlock answer(ANSWER_SIZE);
    FillAnswer(answer, m_Counts);
    m_bAnyNumber = true;
    Answer(answer);
}

int RunServer(DWORD aType, uint16_t aPort) {
    bench::RaiseDescriptorLimit();
    bench::CTermination termination;
    bench::CTalvoProcess process(0, nullptr);
    if (!CCmConnectionManager::Instance())
        return 1;
    bench::CTalvoServer<CSession> server;
    const CmResult rv = server.Open(aType, aPort);
    if (rv != CM_OK) {
        std::fprintf(stderr, "cannot listen on port %u: %s\n", unsigned{aPort}, cm_result_name(rv));
        return 1;
    }
    bench::PrintReady();
    bench::RunMainLoop(termination);
    server.Close();
    return 0;
}

}  // namespace msg
