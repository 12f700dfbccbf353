// A channel over a local file.
#pragma once

#include "talvo/base/ref_ptr.h"
#include "talvo/event/timer_delete.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/http/channel/channel.h"

// Delivers a file of at most 1 MiB as an HTTP client channel delivers a body: OnConnect(CM_OK), one OnReceive with the whole
// content (an empty block for an empty file), OnDisconnect(CM_OK). So code written for channels also reads file URLs.
//
// Made with new, passed to a holder, initialised once, opened once. Used from one thread, which needs a timer queue unless
// CM_OPT_CHANNEL_FILE_SYNC is set.
class TALVO_API CCmChannelFile : public ICmChannel,
                                 private CCmTimerWrapperIDSink,
                                 private CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    CCmChannelFile();  // not open
    ~CCmChannelFile() override;

    CmDword AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlTimerDeleteT::ReleaseReference(); }

    // The file of a URL of the scheme "file": its path with every backslash changed back into "/", from the root. FALSE: null,
    // another scheme, or as below.
    CmBool Init(CCmHttpUrl* aUrl);
    // The file of that name, which is used unchanged. FALSE: an empty name, or not a regular file that can be read (traced).
    // Never waits, also for a pipe or a device. A second call drops the first file.
    CmBool Init(const CCmString& aFileName);

    // CM_ERROR_NOT_INITIALIZED: no file. CM_ERROR_INVALID_ARG: aSink is null. CM_ERROR_ALREADY_INITIALIZED: opened before. Else
    // the result of scheduling the delivery timer: CM_ERROR_NULL_POINTER: this thread has no timer queue. Reasons of
    // OnDisconnect: CM_OK; CM_ERROR_NOT_AVAILABLE, instead of OnConnect: the file has grown beyond 1 MiB; CM_ERROR_FAILURE: it
    // cannot be read; CM_ERROR_OUT_OF_MEMORY.
    CmResult AsyncOpen(ICmChannelSink* aSink) override;

    // Closes the file and stops the delivery; no upcall follows. aReason is not used. CM_OK.
    CmResult Disconnect(CmResult aReason) override;

    // CM_OPT_CHANNEL_FILE_SYNC; CM_ERROR_INVALID_ARG for anything else and for null.
    CmResult SetOption(CmDword aCommand, void* aArg) override;

    ICmTransportSink* GetSink() override { return m_pSink; }

    // A file channel can only be read: CM_ERROR_NOT_IMPLEMENTED.
    CmResult OpenWithSink(ICmTransportSink*) override { return CM_ERROR_NOT_IMPLEMENTED; }
    CmResult SendData(CCmMessageBlock&, CCmTransportParameter* = nullptr) override { return CM_ERROR_NOT_IMPLEMENTED; }
    CmResult GetOption(CmDword, void*) override { return CM_ERROR_NOT_IMPLEMENTED; }
    CmResult GetUrl(CCmHttpUrl*&) override { return CM_ERROR_NOT_IMPLEMENTED; }

private:
    void OnTimer(CCmTimerWrapperID* aId) override;
    void OnReferenceDestory() override;

    void Deliver_i();
    CmBool Read_i(CCmString& aContent) const;
    void End_i(CmResult aReason);
    void Close_i();

    CCmString m_strFileName;
    int m_nFd = -1;
    ICmChannelSink* m_pSink = nullptr;  // not owned; set by AsyncOpen, cleared by Disconnect, the end and the last release
    CCmTimerWrapperID m_Timer;
    CmBool m_bSynchronous = CM_FALSE;
    CmBool m_bOpened = CM_FALSE;
};
