// The settings of all sources, kept current.
#pragma once

#include <memory>
#include <vector>

#include "talvo/proxy/discovery/application_settings.h"
#include "talvo/proxy/discovery/desktop_settings.h"
#include "talvo/proxy/discovery/settings_file.h"
#include "talvo/proxy/process/child_output.h"

namespace talvo {

class IProxySourcesUser {
public:
    // IsReady has become TRUE after a Load.
    virtual void OnSourcesReady() = 0;
    // The desktop's settings have changed.
    virtual void OnSourcesChanged() = 0;

protected:
    virtual ~IProxySourcesUser() = default;
};

// Application, environment and desktop, the strongest first. Network thread. The files of KDE are looked at once a second and
// the program of GNOME runs once in 30 s, both only in Check; meanwhile the old settings serve.
class TALVO_API CProxySources : private IChildOutputSink {
public:
    explicit CProxySources(IProxySourcesUser& aUser) : m_User(aUser) {}
    ~CProxySources() override;

    // Begins with new settings; reads the desktop's, too. Throws std::bad_alloc.
    void Load(std::shared_ptr<const CApplicationSettings> aApplication, std::shared_ptr<const CEnvironment> aEnvironment);
    // FALSE: not loaded, or the first settings of the desktop are on their way.
    BOOL IsReady() const { return m_pApplication && !m_bWaits; }
    // A question has come: looks for changes. OnSourcesChanged may follow inside. Throws std::bad_alloc.
    void Check();

    const CApplicationSettings& GetApplication() const { return *m_pApplication; }
    // The three sources, of which the first that has an answer counts.
    std::vector<const CProxySettings*> GetAll() const;
    // All settings, for people. Throws std::bad_alloc.
    std::vector<CCmProxySetting> GetFound() const;
    // Replaces the wish for the script of the network by its URL, or drops it. Throws std::bad_alloc.
    void ResolveDetection(CProxySettings& aSettings) const;

private:
    void OnChildOutput(CmResult aReason, CCmString& aOutput) override;
    BOOL ReadKde_i();
    void StartGnome_i();
    void SetDesktop_i(CProxySettings aSettings);

    IProxySourcesUser& m_User;
    std::shared_ptr<const CApplicationSettings> m_pApplication;
    std::shared_ptr<const CEnvironment> m_pEnvironment;
    CProxySettings m_Environment;
    CProxySettings m_Desktop;
    EDesktop m_eDesktop = EDesktop::NONE;
    std::vector<CSettingsFile> m_KdeFiles;
    std::unique_ptr<CChildOutput> m_pChild;  // while GNOME's program runs
    CCmString m_strGnome;                    // its last output
    BOOL m_bWaits = FALSE;                   // for the first output
    int64_t m_llNextLook = 0;
};

}  // namespace talvo
