// The interfaces of channels: what is opened by a URL or a file name, says that it is there, delivers its content and ends.
#pragma once

#include "talvo/transport/transport_interface.h"

class CCmHttpUrl;
class ICmChannel;

// Implemented by the user of a channel. One round of calls, all in the channel's thread:
//
//    OnConnect(CM_OK)       once; what the channel is about to deliver can be asked for from here on
//    OnReceive              for each piece of the content, or once for the whole of it
//    OnDisconnect(CM_OK)    the content was whole; the last call
//
// A failure, at any point, is one OnDisconnect with its reason and nothing after it. Inside any of them the sink may call
// anything on the channel, disconnect it and release it; after its own Disconnect or last release no upcall follows.
class TALVO_API ICmChannelSink : public ICmTransportSink {
public:
    virtual void OnConnect(CmResult aReason, ICmChannel* aChannel) = 0;
    ~ICmChannelSink() override;
};

// A source of content that looks like a transport. Belongs to the thread that made it.
class TALVO_API ICmChannel : public ICmTransport {
public:
    // Starts; the sink (not owned) hears the rest. Once in a channel's life.
    virtual CmResult AsyncOpen(ICmChannelSink* aSink) = 0;

    // What the channel is opened for, with a reference for the caller.
    virtual CmResult GetUrl(CCmHttpUrl*& aUrl) = 0;
};
