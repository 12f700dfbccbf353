#include "talvo/base/result.h"

const char* cm_result_name(CmResult aResult) {
    switch (aResult) {
#define CM_RESULT_NAME(aName, aValue) \
    case aName:                       \
        return #aName;
        CM_FOR_EACH_RESULT(CM_RESULT_NAME)
#undef CM_RESULT_NAME
    default:
        return "unknown";
    }
}
