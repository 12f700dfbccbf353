// Sends the body of an answer from its source.
#pragma once

#include "talvo/talvo.h"
#include "tools/access_log.h"
#include "tools/body_source.h"

namespace tool {

// Lives from Start until the answer is complete or has failed, in the network thread. It reuses one piece of memory for all
// reads, so the size of the body does not matter.
class BodySender : public ICmChannelHttpServerSink, private CCmTimerWrapperIDSink {
public:
    // Sends the body of aChannel's answer, which has begun with aLength or UNKNOWN_LENGTH. If the source fails, or memory runs
    // out, the connection is closed, which reports it to the client. aRecord may be null. Throws std::bad_alloc.
    static void Start(ICmChannelHttpServer* aChannel, std::unique_ptr<BodySource> aSource, uint64_t aLength,
                      std::unique_ptr<AccessRecord> aRecord);

    ~BodySender() override { --s_uCount; }
    // The number of live objects.
    static unsigned GetCount() { return s_uCount; }

    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

private:
    BodySender(ICmChannelHttpServer* aChannel, std::unique_ptr<BodySource> aSource, uint64_t aLength,
               std::unique_ptr<AccessRecord> aRecord);

    void OnTimer(CCmTimerWrapperID* aId) override;
    void Pump();
    CmResult SendPiece();

    inline static unsigned s_uCount = 0;

    CCmRefPtrT<ICmChannelHttpServer> m_pChannel;
    const std::unique_ptr<BodySource> m_pSource;
    const std::unique_ptr<AccessRecord> m_pRecord;
    CCmMessageBlock m_Piece;
    CCmTimerWrapperID m_Timer;  // yields to other connections
};

}  // namespace tool
