// The proxy settings of the desktops KDE and GNOME, from their texts.
#pragma once

#include <vector>

#include "talvo/proxy/discovery/proxy_environment.h"

namespace talvo {

enum class EDesktop { NONE, KDE, GNOME };

// The running desktop by XDG_CURRENT_DESKTOP.
TALVO_API EDesktop FindDesktop(const CEnvironment& aEnvironment);

// The files named kioslaverc, the most important first: those of XDG_CONFIG_HOME and XDG_CONFIG_DIRS. Relative folders are
// skipped. Throws std::bad_alloc.
TALVO_API std::vector<CCmString> FindKdeFiles(const CEnvironment& aEnvironment);

struct CKdeFile {
    CCmString m_strPath;
    CCmString m_strText;
};

// The group "Proxy Settings" of the files, the most important first: each key counts where it stands first. ProxyType 4 names
// variables of aEnvironment. Throws std::bad_alloc.
TALVO_API CProxySettings ReadKdeSettings(const std::vector<CKdeFile>& aFiles, const CEnvironment& aEnvironment);

// The output of "gsettings list-recursively org.gnome.system.proxy". Throws std::bad_alloc.
TALVO_API CProxySettings ReadGnomeSettings(std::string_view aText);

}  // namespace talvo
