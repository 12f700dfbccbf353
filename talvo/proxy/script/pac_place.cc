#include "talvo/proxy/script/pac_place.h"

#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "talvo/base/immortal.h"
#include "talvo/base/mutex.h"
#include "talvo/base/result.h"
#include "talvo/base/with_memory.h"
#include "talvo/proxy/script/pac_helper_path.h"

namespace talvo {

namespace {

struct CPlace {
    CCmMutexThread m_Mutex;
    CCmString m_strPath CM_GUARDED_BY(m_Mutex);  // "": beside the library
};

CPlace& GetPlace() {
    static CImmortalT<CPlace> s_Place;
    return *s_Place;
}

// The folder of the library's file, with its "/"; "" if it is unknown.
CCmString GetOwnFolder() {
    Dl_info info{};
    char szPath[PATH_MAX];
    if (dladdr(reinterpret_cast<void*>(&cm_proxy_set_pac_helper), &info) == 0 || !realpath(info.dli_fname, szPath))
        return "";
    const CCmString strPath = szPath;
    return strPath.substr(0, strPath.rfind('/') + 1);
}

}  // namespace

CCmString GetPacHelperPath() {
    CPlace& place = GetPlace();
    {
        CCmMutexGuardT<CCmMutexThread> guard(place.m_Mutex);
        if (!place.m_strPath.empty())
            return place.m_strPath;
    }
    const CCmString strFolder = GetOwnFolder();
    const CCmString strInstalled = strFolder + TALVO_TO_PAC_HELPER;
    return access(strInstalled.c_str(), X_OK) == 0 ? strInstalled : strFolder + "talvo-pac";
}

}  // namespace talvo

int32_t cm_proxy_set_pac_helper(const char* path) {
    const size_t stLength = path ? strnlen(path, PATH_MAX) : 0;
    if (stLength >= PATH_MAX || (stLength > 0 && path[0] != '/'))
        return CM_ERROR_INVALID_ARG;
    talvo::CPlace& place = talvo::GetPlace();
    CCmMutexGuardT<CCmMutexThread> guard(place.m_Mutex);
    CCmString* const pPath = &place.m_strPath;
    return talvo::WithMemory([&] { pPath->assign(path ? path : "", stLength); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}
