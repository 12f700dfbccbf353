// The global names of the library's types. The library's headers use only those of talvo/base/fixed_types.h, so an application
// can do without these: TALVO_NO_GLOBAL_TYPES, defined before the first header of the library, leaves them out.
//
// Other libraries declare some of these names, too. If their types are equal, as those of <sql.h> are, both headers may be
// included in either order. <winscard.h> has other widths for DWORD and BOOL: included first, it makes a use of these two
// ambiguous, which the compiler reports; included later, it needs TALVO_NO_GLOBAL_TYPES.
#pragma once

#include "talvo/base/fixed_types.h"

#ifndef TALVO_NO_GLOBAL_TYPES
// In a namespace, so that another declaration is no error until such a name is used. A macro that is there already stays.
namespace talvo::global_types {

#ifndef BYTE
using BYTE = CmByte;
#endif
#ifndef WORD
using WORD = CmWord;
#endif
#ifndef DWORD
using DWORD = CmDword;
#endif
#ifndef BOOL
using BOOL = CmBool;
#endif
#ifndef TRUE
constexpr CmBool TRUE = CM_TRUE;
#endif
#ifndef FALSE
constexpr CmBool FALSE = CM_FALSE;
#endif
#ifndef HANDLE
using HANDLE = CmHandle;
#endif

}  // namespace talvo::global_types

using namespace talvo::global_types;
#endif
