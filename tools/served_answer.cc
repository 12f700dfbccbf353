#include "tools/served_answer.h"

#include <utility>

#include "tools/body_sender.h"
#include "tools/memory.h"

namespace tool {

namespace {

using Atoms = CCmHttpAtomList;

// Names of this program only, so the table of names never grows beyond them.
CCmHttpAtom MakeAtom(const char* aName) {
    CCmHttpAtomList* pAtoms = CCmHttpAtomList::Instance();
    const CCmHttpAtom atom = pAtoms ? pAtoms->ResolveAtom(aName, 1) : CCmHttpAtom();
    RequireMemory(atom ? CM_OK : CM_ERROR_OUT_OF_MEMORY);
    return atom;
}

}  // namespace

ServedAnswer::ServedAnswer(ICmChannelHttpServer& aChannel, AccessLog* aLog) : m_Channel(aChannel) {
    if (!aLog)
        return;
    CCmInetAddr peer;
    aChannel.GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &peer);
    m_pRecord = std::make_unique<AccessRecord>(*aLog, aChannel.GetRequest(), peer);
}

std::string_view ServedAnswer::GetRequestHeader(const CCmHttpAtom& aName) const {
    const CCmString* pValue = GetRequest().FindHeader(aName);
    return pValue ? std::string_view(*pValue) : std::string_view();
}

void ServedAnswer::SetHeader(const CCmHttpAtom& aName, const std::string& aValue) {
    RequireMemory(m_Channel.SetHeader(aName, aValue));
}

void ServedAnswer::SetHeader(const char* aName, const std::string& aValue) { SetHeader(MakeAtom(aName), aValue); }

void ServedAnswer::AddVary(const char* aName) { RequireMemory(m_Channel.SetHeader(Atoms::Vary, aName, TRUE)); }

void ServedAnswer::SendStatus(long aStatus, const std::string& aText) {
    SetStatus(aStatus);
    RequireMemory(m_Channel.AnswerText(aStatus, "text/plain; charset=utf-8", aText + "\n"));
    if (m_pRecord && !IsHead())
        m_pRecord->AddBytes(aText.size() + 1);
}

void ServedAnswer::SendNothing(long aStatus) {
    SetStatus(aStatus);
    RequireMemory(m_Channel.EndAnswer());
}

void ServedAnswer::SendBody(long aStatus, std::unique_ptr<BodySource> aSource, uint64_t aLength) {
    SetStatus(aStatus);
    RequireMemory(m_Channel.BeginAnswer(aLength));
    if (aLength == 0 || IsHead())
        m_Channel.EndAnswer();
    else
        BodySender::Start(&m_Channel, std::move(aSource), aLength, std::move(m_pRecord));
}

void ServedAnswer::SetStatus(long aStatus) {
    RequireMemory(m_Channel.SetStatus(aStatus));
    if (m_pRecord)
        m_pRecord->SetStatus(aStatus);
}

}  // namespace tool
