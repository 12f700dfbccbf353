// The answer of `talvo serve` to one request.
#pragma once

#include <memory>
#include <string>

#include "talvo/talvo.h"
#include "tools/access_log.h"
#include "tools/body_source.h"

namespace tool {

// A value of the upcall OnRequest. It writes the request's line to the access log, or passes it to the sender of the body.
// All operations throw std::bad_alloc.
class ServedAnswer {
public:
    // aLog: null without an access log.
    ServedAnswer(ICmChannelHttpServer& aChannel, AccessLog* aLog);

    const CCmHttpRequestHead& GetRequest() const { return m_Channel.GetRequest(); }
    // The value of a header of the request, or "".
    std::string_view GetRequestHeader(const CCmHttpAtom& aName) const;

    // Before the answer is sent.
    void SetHeader(const CCmHttpAtom& aName, const std::string& aValue);
    void SetHeader(const char* aName, const std::string& aValue);
    // The answer depends on that header of the request.
    void AddVary(const char* aName);

    // Each of these sends the answer and is called once.
    void SendStatus(long aStatus, const std::string& aText);  // with a line of text
    void SendNothing(long aStatus);                           // without a body
    // aLength: of the source, or UNKNOWN_LENGTH. To a HEAD request only the head is sent.
    void SendBody(long aStatus, std::unique_ptr<BodySource> aSource, uint64_t aLength);

private:
    bool IsHead() const { return GetRequest().GetMethod() == CCmHttpAtomList::Head; }
    void SetStatus(long aStatus);

    ICmChannelHttpServer& m_Channel;
    std::unique_ptr<AccessRecord> m_pRecord;
};

}  // namespace tool
