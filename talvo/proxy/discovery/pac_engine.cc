#include "talvo/proxy/discovery/pac_engine.h"

#include <atomic>

namespace talvo {

namespace {

std::atomic<IPacEngine*> s_pEngine{nullptr};  // not owned
std::atomic<IPacTexts*> s_pTexts{nullptr};    // not owned

}  // namespace

CCmString DescribeNoEngine() {
    const IPacEngine* pEngine = IPacEngine::Get();
    const CCmString strProblem = pEngine ? pEngine->GetProblem() : "the library was built without an engine";
    return "no script can run" + (strProblem.empty() ? "" : ": " + strProblem);
}

IPacSink::~IPacSink() = default;
void IPacSink::OnPacAlert(const CCmString&) {}
IPacEngine::~IPacEngine() = default;
CCmString IPacEngine::GetProblem() const { return ""; }
IPacTextSink::~IPacTextSink() = default;
IPacTextWatcher::~IPacTextWatcher() = default;
IPacTexts::~IPacTexts() = default;
void IPacTexts::Reject(const CCmString&, const CPacTextPtr&) {}

IPacEngine* IPacEngine::Get() { return s_pEngine.load(std::memory_order_acquire); }
void IPacEngine::Set(IPacEngine* aEngine) { s_pEngine.store(aEngine, std::memory_order_release); }

IPacTexts* IPacTexts::Get() { return s_pTexts.load(std::memory_order_acquire); }
void IPacTexts::Set(IPacTexts* aTexts) { s_pTexts.store(aTexts, std::memory_order_release); }

}  // namespace talvo
