// The part of discovery in the network thread.
#pragma once

#include <map>
#include <memory>

#include "talvo/base/trace_pace.h"
#include "talvo/proxy/discovery/network_watch.h"
#include "talvo/proxy/discovery/proxy_evaluation.h"

namespace talvo {

// What the answers come from.
struct CDiscoverySettings {
    DWORD m_dwGeneration = 0;  // changes with the others
    std::shared_ptr<const CApplicationSettings> m_pApplication;
    std::shared_ptr<const CEnvironment> m_pEnvironment;
};

class IProxyFinderUser {
public:
    virtual CDiscoverySettings GetSettings() = 0;
    virtual DWORD GetGeneration() const = 0;
    // The answers are out of date. aGeneration (in, out): the last known one, and the new one. TRUE: the settings are still
    // those of the last known one.
    virtual BOOL OnAnswersObsolete(DWORD& aGeneration) = 0;
    // The end of the evaluation of an origin; "": of the settings. aSeconds: the time for which the answer may be kept, unless
    // the generation is a new one.
    virtual void OnProxyFound(DWORD aGeneration, const CCmString& aOrigin, CCmProxyAnswer::CValue aValue, DWORD aSeconds) = 0;

protected:
    virtual ~IProxyFinderUser() = default;
};

// Runs one evaluation for each origin. It starts all of them again when settings, script or network have changed.
class CProxyFinder : private IProxySourcesUser,
                     private IProxyEvaluationUser,
                     private IPacTextWatcher,
                     private INetworkWatchUser {
public:
    CProxyFinder(ICmReactor& aReactor, IProxyFinderUser& aUser);
    ~CProxyFinder() override;

    // One OnProxyFound follows, perhaps inside.
    void Start(const CProxyOrigin& aOrigin);
    // The kept answers are in use: looks for changes of the settings.
    void Check();
    // The user's settings have changed.
    void Reload();
    // All scripts are fetched again.
    void Refresh();

private:
    using CEvaluations = std::map<CCmString, std::unique_ptr<CProxyEvaluation>>;  // by URL

    void OnSourcesReady() override { StartAll_i(); }
    void OnSourcesChanged() override { BeginAnew_i("settings"); }
    void OnPacTextChanged(const CCmString&) override { BeginAnew_i("script"); }
    void OnNetworkChanged() override { BeginAnew_i("network"); }
    const CProxySources& GetSources() const override { return m_Sources; }
    CPacTextPtr GetGoodScript(const CCmString& aUrl) const override;
    void SetGoodScript(const CCmString& aUrl, const CPacTextPtr& aScript) override;
    void OnScriptFailed(const CCmString& aError) override;
    void OnEvaluated(CProxyEvaluation& aEvaluation, CCmProxyAnswer::CValue aValue) override;

    BOOL Load_i();
    void BeginAnew_i(const char* aChange);
    void StartAll_i();
    void FailAll_i();
    void Fail_i(const CCmString& aUrl);

    IProxyFinderUser& m_User;
    CProxySources m_Sources;
    DWORD m_dwGeneration = 0;
    BOOL m_bLoaded = FALSE;  // the settings of this generation
    CEvaluations m_Running;
    CCmString m_strGoodUrl;
    CPacTextPtr m_pGoodScript;  // of that URL
    CNetworkWatch m_Watch;
    CTracePace m_Pace;  // of script failures
};

}  // namespace talvo
