#include "talvo/transport/tls/default_context.h"

#include <sys/stat.h>

#include <new>

#include "talvo/base/config.h"
#include "talvo/base/immortal.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

namespace talvo {

namespace {

const CCmTimeValue LOOK_TIME(60);

struct CSection {
    const CCmString m_strFile = get_string_param("Ssl", "CaFile", "");
    const CCmString m_strFolder = get_string_param("Ssl", "CaPath", "");
    const CCmString m_strVersion = get_string_param("Ssl", "MinVersion", "1.2");
};

// Differs when the file or folder does.
CCmString StateOf(const CCmString& aPath) {
    struct stat state {};
    if (aPath.empty() || stat(aPath.c_str(), &state) != 0)
        return aPath + "\n";
    return aPath + "\n" + std::to_string(state.st_ino) + " " + std::to_string(state.st_size) + " " +
           std::to_string(state.st_ctim.tv_sec) + "." + std::to_string(state.st_ctim.tv_nsec) + "\n";
}

void SetUp(CCmSslContext& aContext, const CSection& aSection) {
    if (!aSection.m_strFile.empty() || !aSection.m_strFolder.empty())
        aContext.SetTrust(aSection.m_strFile.empty() ? nullptr : aSection.m_strFile.c_str(),
                          aSection.m_strFolder.empty() ? nullptr : aSection.m_strFolder.c_str());
    if (aSection.m_strVersion == "1.3")
        aContext.SetVersions(CM_TLS_1_3, CM_TLS_1_3);
    else if (aSection.m_strVersion != "1.2")
        CM_WARNING_TRACE("CCmSslContext::GetDefault, MinVersion is neither 1.2 nor 1.3 and is ignored. MinVersion="
                         << aSection.m_strVersion);
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
    const CSection section;
    CCmString strState = StateOf(section.m_strFile) + StateOf(section.m_strFolder) + section.m_strVersion;
    m_tvLooked = tvNow;
    if (m_pContext && strState == m_strState)
        return;
    CCmRefPtrT<CCmSslContext> pContext(new CCmSslContext);
    SetUp(*pContext, section);
    m_strState.swap(strState);
    m_pContext = pContext;
}

}  // namespace talvo
