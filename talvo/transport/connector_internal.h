// The inner connectors of a connector wrapper.
#pragma once

#include "talvo/base/failure.h"
#include "talvo/base/inet_addr.h"
#include "talvo/base/result.h"

class ACmConnectorInternal;
class ICmReactor;
class ICmTransport;

// An inner connector reports to it: the wrapper, or another connector that uses it.
class TALVO_API ACmConnectorUpper {
public:
    // The one report of an attempt. CM_OK with a connected, unopened transport, which lives during the call; else null and a
    // reason, CM_ERROR_NETWORK_CONNECT_ERROR or CM_ERROR_NETWORK_DNS_FAILURE. May delete aId. Returns 0.
    virtual int OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal* aId) = 0;

protected:
    virtual ~ACmConnectorUpper();
};

// Opens one connection at a time, in the thread of its reactor. A derived class sets m_Failure before it fails, reports from a
// timer or a handler of its reactor, accesses no member after a report, and calls Close in its destructor. The wrapper above it
// runs the caller's time-out.
class TALVO_API ACmConnectorInternal {
public:
    // -1: failed at once, without a report. Any other value: in progress; one report follows, after the return.
    virtual int Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal = nullptr) = 0;
    // Stops the attempt; no report follows.
    virtual void Close() = 0;
    virtual ~ACmConnectorInternal();

    // Options for the next Connect; aArg is not null. CM_ERROR_INVALID_ARG: an unknown command (all are, unless overridden), or
    // an invalid value. See ECmConnectOption.
    virtual CmResult SetOption(CmDword aCommand, void* aArg);
    virtual CmResult GetOption(CmDword aCommand, void* aArg);

    // TRUE: the upper connector limits the time of the next attempt, so handshakes need no limit of their own.
    void SetTimed(CmBool aTimed) { m_bTimed = aTimed; }

    // The failure of the last Connect: the cause of its -1, or the one that it reported.
    const CCmFailure& GetFailure() const { return m_Failure; }

protected:
    CCmFailure m_Failure;  // set before the attempt fails
    CmBool m_bTimed = CM_FALSE;
};
