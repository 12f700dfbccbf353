#include "talvo/proxy/discovery/proxy_sources.h"

#include "talvo/base/clock.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/proxy/discovery/wpad.h"

namespace talvo {

namespace {

constexpr int64_t KDE_USEC = 1'000'000;
constexpr int64_t GNOME_USEC = 30'000'000;
constexpr size_t MOST_OUTPUT = 1 << 20;
const CCmTimeValue GNOME_LIMIT(2, 0);

}  // namespace

CProxySources::~CProxySources() = default;

void CProxySources::Load(std::shared_ptr<const CApplicationSettings> aApplication,
                         std::shared_ptr<const CEnvironment> aEnvironment) {
    m_pApplication = std::move(aApplication);
    m_pEnvironment = std::move(aEnvironment);
    m_Environment = m_pEnvironment->ReadProxies();
    m_Desktop = {};
    m_KdeFiles.clear();
    m_pChild.reset();
    m_bWaits = FALSE;
    m_llNextLook = CCmClock::GetTimeOfDayUsec() + KDE_USEC;
    m_strGnome.clear();
    m_eDesktop = m_pApplication->IsSystem() ? FindDesktop(*m_pEnvironment) : EDesktop::NONE;
    if (m_eDesktop == EDesktop::KDE) {
        for (CCmString& strPath : FindKdeFiles(*m_pEnvironment))
            m_KdeFiles.emplace_back(std::move(strPath));
        ReadKde_i();
    }
    if (m_eDesktop == EDesktop::GNOME)
        StartGnome_i();
    m_bWaits = m_pChild != nullptr;
}

void CProxySources::Check() {
    if (!IsReady() || m_pChild || CCmClock::GetTimeOfDayUsec() < m_llNextLook)
        return;
    m_llNextLook = CCmClock::GetTimeOfDayUsec() + KDE_USEC;
    if (m_eDesktop == EDesktop::GNOME)
        StartGnome_i();
    else if (m_eDesktop == EDesktop::KDE && ReadKde_i())
        m_User.OnSourcesChanged();
}

BOOL CProxySources::ReadKde_i() {
    BOOL bChanged = FALSE;
    for (CSettingsFile& file : m_KdeFiles)
        bChanged = file.Read() || bChanged;
    if (!bChanged)
        return FALSE;
    std::vector<CKdeFile> files;
    for (const CSettingsFile& file : m_KdeFiles)
        files.push_back({file.GetPath(), file.GetText()});
    SetDesktop_i(ReadKdeSettings(files, *m_pEnvironment));
    return TRUE;
}

// A desktop without the program or without its schema has no settings.
void CProxySources::StartGnome_i() {
    m_llNextLook = CCmClock::GetTimeOfDayUsec() + GNOME_USEC;
    m_pChild = std::make_unique<CChildOutput>();
    const CmResult rv =
        m_pChild->Start({"/usr/bin/gsettings", {"list-recursively", "org.gnome.system.proxy"}, m_pEnvironment->GetAll()},
                        GNOME_LIMIT, MOST_OUTPUT, *this);
    if (rv == CM_OK)
        return;
    m_pChild.reset();
    CM_WARNING_TRACE_THIS("CProxySources::StartGnome_i, no settings of the desktop. rv=" << rv);
}

void CProxySources::OnChildOutput(CmResult aReason, CCmString& aOutput) {
    const auto pChild = std::move(m_pChild);
    const BOOL bFirst = std::exchange(m_bWaits, FALSE);
    BOOL bNew = FALSE;
    WithMemory([&] {
        bNew = aReason == CM_OK && aOutput != m_strGnome;
        if (!bNew)
            return;
        SetDesktop_i(ReadGnomeSettings(aOutput));
        m_strGnome.swap(aOutput);
    });
    if (aReason != CM_OK)
        CM_WARNING_TRACE_THIS("CProxySources::OnChildOutput, no settings of the desktop. reason=" << aReason);
    if (bFirst)
        m_User.OnSourcesReady();
    else if (bNew)
        m_User.OnSourcesChanged();
}

void CProxySources::SetDesktop_i(CProxySettings aSettings) {
    ResolveDetection(aSettings);
    m_Desktop = std::move(aSettings);
}

void CProxySources::ResolveDetection(CProxySettings& aSettings) const {
    if (!std::exchange(aSettings.m_bDetect, FALSE) || !m_pApplication->m_bMayDetect)
        return;
    aSettings.m_strScript = FindWpadUrl();
}

std::vector<const CProxySettings*> CProxySources::GetAll() const {
    return {&m_pApplication->m_Proxies, &m_Environment, &m_Desktop};
}

std::vector<CCmProxySetting> CProxySources::GetFound() const {
    std::vector<CCmProxySetting> found;
    for (const CProxySettings* pSettings : GetAll())
        found.insert(found.end(), pSettings->m_Found.begin(), pSettings->m_Found.end());
    return found;
}

}  // namespace talvo
