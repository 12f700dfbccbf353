// Sends a part of a file as the body of an answer.
#pragma once

#include "talvo/talvo.h"
#include "tools/served_directory.h"

namespace tool {

// Lives from Start until the answer is complete or has failed, in the network thread. It reuses one piece of memory for all
// reads, so the size of the file does not matter.
class FileSender : public ICmChannelHttpServerSink, private CCmTimerWrapperIDSink {
public:
    // Sends aLength bytes from aOffset on as the body of aChannel's answer, which has begun with that length. If the file turns
    // out to be shorter, or memory runs out, the connection is closed, which reports it to the client. Throws std::bad_alloc.
    static void Start(ICmChannelHttpServer* aChannel, FileHandle aFile, uint64_t aOffset, uint64_t aLength);

    ~FileSender() override { --s_uCount; }
    // The number of live objects.
    static unsigned GetCount() { return s_uCount; }

    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

private:
    FileSender(ICmChannelHttpServer* aChannel, FileHandle aFile, uint64_t aOffset, uint64_t aLength);

    void OnTimer(CCmTimerWrapperID* aId) override;
    void Pump();
    CmResult SendPiece();

    inline static unsigned s_uCount = 0;

    CCmRefPtrT<ICmChannelHttpServer> m_pChannel;
    FileHandle m_File;
    uint64_t m_ullOffset;
    uint64_t m_ullLeft;  // bytes that have not been read
    CCmMessageBlock m_Piece;
    CCmTimerWrapperID m_Timer;  // yields to other connections
};

}  // namespace tool
