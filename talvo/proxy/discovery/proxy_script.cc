#include "talvo/proxy/discovery/proxy_script.h"

#include "talvo/base/with_memory.h"
#include "talvo/event/thread_manager.h"
#include "talvo/proxy/discovery/script_run.h"

ICmProxyScriptSink::~ICmProxyScriptSink() = default;

CCmProxyScript::CCmProxyScript(const CCmString& aScriptUrl, ICmProxyScriptSink& aSink)
    : m_pRun(std::make_unique<talvo::CScriptRun>(aScriptUrl, aSink)) {}

CCmProxyScript::~CCmProxyScript() = default;

CmResult CCmProxyScript::Find(const CQuestion& aQuestion) {
    CCmThreadManager& threads = *CCmThreadManager::Instance();
    ACmThread* pNetwork = threads.GetThread(CCmThreadManager::TT_NETWORK);
    if (!pNetwork || pNetwork != threads.GetThread(CCmThreadManager::TT_CURRENT))
        return CM_ERROR_NOT_AVAILABLE;
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    talvo::WithMemory([&] { rv = m_pRun->Find(aQuestion); });
    return rv;
}
