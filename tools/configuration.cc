#include "tools/configuration.h"

#include <unistd.h>

#include <cstdlib>

#include "talvo/talvo.h"

namespace tool {

namespace {

// "" if the user has no such directory. Relative paths are ignored.
std::string GetUserFile() {
    const char* pConfig = std::getenv("XDG_CONFIG_HOME");
    if (pConfig && *pConfig == '/')
        return std::string(pConfig) + "/talvo/talvo.cfg";
    const char* pHome = std::getenv("HOME");
    return pHome && *pHome == '/' ? std::string(pHome) + "/.config/talvo/talvo.cfg" : "";
}

}  // namespace

std::string LoadConfiguration(const std::string& aFile) {
    const std::string strPath = aFile.empty() ? GetUserFile() : aFile;
    const CmResult rv = load_config_file(strPath.c_str());  // also with "": no other file is loaded then
    if (rv == CM_OK || (aFile.empty() && access(strPath.c_str(), F_OK) != 0))
        return "";
    if (rv == CM_ERROR_NOT_AVAILABLE)
        return "the configuration '" + strPath + "' is refused: other users can write it, or another user owns it";
    return "cannot read the configuration '" + strPath + "'";
}

}  // namespace tool
