#include "talvo/transport/tls/default_context.h"

#include <sys/stat.h>

#include <new>

#include "talvo/base/config.h"
#include "talvo/base/immortal.h"
#include "talvo/base/with_memory.h"

namespace talvo {

namespace {

const CCmTimeValue LOOK_TIME(60);

// Differs when the file or folder does.
CCmString StateOf(const CCmString& aPath) {
    struct stat state {};
    if (aPath.empty() || stat(aPath.c_str(), &state) != 0)
        return aPath + "\n";
    return aPath + "\n" + std::to_string(state.st_ino) + " " + std::to_string(state.st_size) + " " +
           std::to_string(state.st_mtim.tv_sec) + "." + std::to_string(state.st_mtim.tv_nsec) + "\n";
}

void SetUp(CCmSslContext& aContext, const CCmString& aFile, const CCmString& aFolder) {
    if (!aFile.empty() || !aFolder.empty())
        aContext.SetTrust(aFile.empty() ? nullptr : aFile.c_str(), aFolder.empty() ? nullptr : aFolder.c_str());
    if (get_string_param("Ssl", "MinVersion", "1.2") == "1.3")
        aContext.SetVersions(CM_TLS_1_3, CM_TLS_1_3);
}

}  // namespace

// Never destroyed: threads may still connect while the process exits.
CDefaultContext& CDefaultContext::Instance() {
    static CImmortalT<CDefaultContext> s_Default;
    return *s_Default;
}

void CDefaultContext::Clear() {
    const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    m_pContext = nullptr;
}

CCmRefPtrT<CCmSslContext> CDefaultContext::Get() {
    WithMemory([this] { Renew(); });
    const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    return m_pContext;
}

void CDefaultContext::Renew() {
    const CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    if (m_pContext && tvNow < m_tvLooked + LOOK_TIME)
        return;
    const CCmString strFile = get_string_param("Ssl", "CaFile", ""), strFolder = get_string_param("Ssl", "CaPath", "");
    CCmString strState = StateOf(strFile) + StateOf(strFolder);
    m_tvLooked = tvNow;
    if (m_pContext && strState == m_strState)
        return;
    CCmRefPtrT<CCmSslContext> pContext(new CCmSslContext);
    SetUp(*pContext, strFile, strFolder);
    m_strState.swap(strState);
    m_pContext = pContext;
}

}  // namespace talvo
