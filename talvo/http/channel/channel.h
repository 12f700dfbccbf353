// The interfaces of channels: a channel is opened by a URL or a file name, connects, delivers its content and ends.
#pragma once

#include "talvo/transport/transport_interface.h"

class CCmHttpUrl;
class ICmChannel;

// The user of a channel implements it. One round of calls, all in the channel's thread:
//
//    OnConnect(CM_OK)       once; from here on the properties of the content are available
//    OnReceive              for each piece of the content, or once for all of it
//    OnDisconnect(CM_OK)    the content was complete; the last call
//
// A failure, at any point, is one OnDisconnect with its reason and no call after it. Inside any call the sink may call anything
// on the channel, disconnect it and release it. After its own Disconnect or last release no upcall follows.
class TALVO_API ICmChannelSink : public ICmTransportSink {
public:
    // The head of the answer or the file's properties are there.
    virtual void OnConnect(CmResult aReason, ICmChannel* aChannel) = 0;
    ~ICmChannelSink() override;
};

// A source of content that looks like a transport. Belongs to the thread that made it.
class TALVO_API ICmChannel : public ICmTransport {
public:
    // Starts the delivery to the sink (not owned). Once in a channel's life.
    virtual CmResult AsyncOpen(ICmChannelSink* aSink) = 0;

    // aUrl (out): the channel's URL, with a reference for the caller.
    virtual CmResult GetUrl(CCmHttpUrl*& aUrl) = 0;
};
