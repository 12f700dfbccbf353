// The interface through which a connection finds the user's proxy, independent of the discovery.
#pragma once

#include "talvo/transport/proxy_route.h"

// Asks a proxy source. All calls come from the loop of the thread that has asked.
class TALVO_API ICmProxySourceSink {
public:
    // The one answer of an Ask that returned CM_ERROR_WOULD_BLOCK. CM_OK: aRoute is not empty, and valid during the call.
    // CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE: there is no route, and a direct connection is forbidden. Any other reason: the
    // source knows no route. The sink may ask again from inside.
    virtual void OnProxyRoute(CmResult aReason, const CCmProxyRoute& aRoute) = 0;
    // The settings have changed while the sink waits, so the answer may be out of date: it may Cancel and ask again.
    virtual void OnProxySettingsChanged() = 0;

protected:
    virtual ~ICmProxySourceSink();
};

// The process's discovery of proxies implements it. An application may install its own. Any thread that has an event queue.
class TALVO_API ICmProxySource {
public:
    // Never waits. aUrl: "https://host:port/", an IPv6 address in brackets. CM_OK: aRoute (out) is the answer, and not empty.
    // CM_ERROR_WOULD_BLOCK: one OnProxyRoute follows, after the return. Other results as the reasons of OnProxyRoute. A sink
    // (not owned) has one question at a time.
    virtual CmResult Ask(const CCmString& aUrl, ICmProxySourceSink& aSink, CCmProxyRoute& aRoute) = 0;
    // Withdraws the question of aSink, in its thread; no call follows. Does nothing without one.
    virtual void Cancel(ICmProxySourceSink& aSink) = 0;
    virtual ~ICmProxySource();

    // The process-wide source. Null: every route is DIRECT. Not owned: it outlives its questions. Any thread.
    static ICmProxySource* Get();
    static void Set(ICmProxySource* aSource);  // replaces it
};
