// talvo-pac: runs proxy auto-configuration scripts for the library, which starts it. docs/pac-helper.md defines its protocol.
#include <unistd.h>

#include "tools/pac/clock.h"
#include "tools/pac/confine.h"
#include "tools/pac/engine.h"
#include "tools/pac/names.h"
#include "tools/pac/wire.h"

namespace {

void Answer(const pac::Outcome& aOutcome) {
    if (aOutcome.m_bOk)
        return pac::WriteFrame('r', aOutcome.m_strText);
    std::string strError;
    for (int nShift = 24; nShift >= 0; nShift -= 8)
        strError += static_cast<char>(aOutcome.m_uLine >> nShift & 0xFF);
    pac::WriteFrame('e', strError + aOutcome.m_strText);
}

// Both requests begin with the time of the script.
void SetClock(pac::Fields& aFields) {
    const auto llTime = static_cast<int64_t>(aFields.GetNumber(8));
    pac::SetClock(llTime, aFields.GetText());
}

void Load(pac::Engine& aEngine, const std::string& aPayload, bool aConfined) {
    pac::Fields fields(aPayload);
    SetClock(fields);
    pac::Outcome outcome = aEngine.Load(fields.GetRest());
    if (outcome.m_bOk)
        outcome.m_strText = aConfined ? "confined" : "unconfined";
    Answer(outcome);
}

void Find(pac::Engine& aEngine, const std::string& aPayload) {
    pac::Fields fields(aPayload);
    SetClock(fields);
    const std::string strUrl = fields.GetText();
    const std::string strHost = fields.GetText();
    if (!fields.IsComplete())
        _exit(2);
    Answer(aEngine.Find(strUrl, strHost));
}

}  // namespace

int main() {
    const bool bConfined = pac::Confine();
    pac::Engine engine;
    for (;;) {
        const pac::Frame frame = pac::ReadFrame();
        pac::ForgetNames();
        if (frame.m_cLetter == 'L')
            Load(engine, frame.m_strPayload, bConfined);
        else if (frame.m_cLetter == 'F')
            Find(engine, frame.m_strPayload);
        else
            return 2;
    }
}
