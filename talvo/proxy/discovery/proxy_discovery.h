// Finds the user's proxy.
#pragma once

#include "talvo/base/clean_up.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/event/timer_queue.h"
#include "talvo/proxy/discovery/proxy_answer.h"
#include "talvo/transport/proxy_source.h"

class ACmThread;

namespace talvo {
class CDiscoveryState;
}

// Answers from the settings of the application, the environment and the desktop, in this order, and from the auto-configuration
// script that one of them names. The library's connectors reach it
// through the slot of ICmProxySource. Any thread may call all operations; the network thread reads the settings and evaluates,
// and no thread waits. A script gets only scheme, host and port of a URL, and answers are kept for these.
class TALVO_API CCmProxyDiscovery : public CCmCleanUpBase, public ICmProxySource {
public:
    static constexpr const char* TOPIC = "ProxyDiscovery";  // of the observer's call
    static constexpr size_t MOST_WAITING = 4096;            // questions
    static constexpr size_t MOST_KEPT = 4096;               // answers

    // The first call creates it. Null: memory ran out, and the next call tries again.
    static CCmProxyDiscovery* Instance();

    // Finds the proxies for aUrl, of the scheme http or https.
    //
    // CM_OK: aAnswer (out) is the kept answer with a reference for the caller. Check its result: it may be a failure.
    // CM_ERROR_WOULD_BLOCK: an evaluation is under way, shared by all questions for the same scheme, host and port. aObserver,
    // if there is one, is called once for each such call: OnObserve(TOPIC, answer), where answer is a CCmProxyAnswer* that is
    // valid during the call. The call comes from the loop of aThread, or of the calling thread if that is null. Inside it the
    // observer may ask again or cancel. It is not owned: it must cancel before it is deleted.
    // CM_ERROR_INVALID_ARG: another scheme, no host, or a host with "@". CM_ERROR_NULL_POINTER: there is an observer, but no
    // thread with an event queue to call it in. CM_ERROR_NOT_AVAILABLE: there is no network thread, or MOST_WAITING questions
    // wait. CM_ERROR_OUT_OF_MEMORY. If memory runs out later, the observer gets an answer with that result.
    CmResult Find(CCmProxyAnswer*& aAnswer, const CCmString& aUrl, ICmObserver* aObserver = nullptr,
                  ACmThread* aThread = nullptr);

    // Reads the settings of all sources. The observer gets an answer whose GetSettings has them; other results as Find.
    CmResult FindSettings(ICmObserver* aObserver, ACmThread* aThread = nullptr);

    // Cancels all questions of aObserver. In the thread in which it is called, no call follows; in another thread, a call under
    // way may end after this function. CM_OK. CM_ERROR_NOT_FOUND: it waited for none. CM_ERROR_INVALID_ARG: null.
    CmResult CancelFind(ICmObserver* aObserver);

    // Replaces the application's settings: lines "key=value" as in the section "HttpProxy" of docs/configuration.md. "": those
    // of the configuration file again. CM_OK. CM_ERROR_INVALID_ARG: a malformed line, an unknown key, or a value that its key
    // cannot have; nothing changes. CM_ERROR_NOT_AVAILABLE: more than 64 KiB. CM_ERROR_OUT_OF_MEMORY.
    CmResult SetSettings(const CCmString& aText);

    // Reads the environment in the calling thread, and the other sources at the next question. Drops the kept answers and the
    // list of unreachable proxies, and fetches the script again. Questions under way start again.
    void Refresh();

    // A server of a route could not be reached: for 5 minutes it comes last in the routes that connections use. aServer: a URI
    // such as "http://proxy:3128". CM_ERROR_INVALID_ARG: no such URI. CM_ERROR_OUT_OF_MEMORY.
    CmResult ReportBad(const CCmString& aServer);

    CmResult Ask(const CCmString& aUrl, ICmProxySourceSink& aSink, CCmProxyRoute& aRoute) override;
    void Cancel(ICmProxySourceSink& aSink) override;

private:
    CCmProxyDiscovery();
    ~CCmProxyDiscovery() override;

    const CCmRefPtrT<talvo::CDiscoveryState> m_pState;
};
