// Sends a part of a file as the body of an answer.
#pragma once

#include "talvo/talvo.h"
#include "tools/served_directory.h"

namespace tool {

// Lives from Start until the answer is complete or cannot be given any more, in the network thread: what it has read is sent
// from one piece of memory that it uses again and again, so the size of the file does not matter.
class FileSender : public ICmChannelHttpServerSink, private CCmTimerWrapperIDSink {
public:
    // Answers aChannel, whose answer has begun with aLength, with so many bytes from aOffset on. If the file turns out to be
    // shorter the connection ends, which tells the client; so it does when memory runs out. Throws std::bad_alloc.
    static void Start(ICmChannelHttpServer* aChannel, FileHandle aFile, uint64_t aOffset, uint64_t aLength);

    ~FileSender() override { --s_uCount; }
    // How many there are.
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
    CCmTimerWrapperID m_Timer;  // lets others have their turn
};

}  // namespace tool
