// The server of talvo_bench_msg.
#pragma once

#include "benchmarks/msg/message.h"
#include "benchmarks/support/talvo_server.h"

namespace msg {

// One connection. Its counts are of its whole life. A fault is a D that is too short, has a wrong last byte, or whose number is
// not the one before plus one. The first D, and the first after each E, may have any number, so that a client may start again.
class CSession : public bench::CTalvoSession<CSession> {
public:
    using CTalvoSession::CTalvoSession;

    CmResult Open(CPlace aPlace);
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara) override;

private:
    void Count(const CSeen& aSeen);
    void AnswerEnd();

    CCounts m_Counts;
    uint64_t m_ullExpected = 0;
    bool m_bAnyNumber = true;
};

// Listens on 127.0.0.1 until a signal or a Q. Returns the program's exit status.
int RunServer(DWORD aType, uint16_t aPort);

}  // namespace msg
