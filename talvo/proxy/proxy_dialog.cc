#include "talvo/proxy/proxy_dialog.h"

#include <algorithm>

namespace talvo {

CProxyRefusal CProxyRefusal::Make(CmResult aReason, std::string_view aText) {
    CProxyRefusal refusal{aReason, CCmString(aText.substr(0, LONGEST_TEXT))};
    std::ranges::replace_if(
        refusal.m_strText, [](char a) { return a < ' ' || a > '~'; }, '?');
    return refusal;
}

}  // namespace talvo
