#include "talvo/transport/tls/alpn.h"

#include <string_view>

namespace talvo {

namespace {

constexpr size_t LONGEST = 255;

// Calls aTake(name) for each name. FALSE: one is not valid.
template <class Callable>
BOOL ForEachName(std::string_view aProtocols, Callable aTake) {
    for (size_t st = 0; st <= aProtocols.size();) {
        const std::string_view name = aProtocols.substr(st, aProtocols.find(',', st) - st);
        if (name.empty() || name.size() > LONGEST)
            return FALSE;
        aTake(name);
        st += name.size() + 1;
    }
    return TRUE;
}

}  // namespace

BOOL IsAlpn(const CCmString& aProtocols) {
    return aProtocols.empty() || ForEachName(aProtocols, [](std::string_view) {});
}

std::vector<unsigned char> MakeAlpnList(const CCmString& aProtocols) {
    std::vector<unsigned char> list;
    const BOOL bValid = ForEachName(aProtocols, [&](std::string_view aName) {
        list.push_back(static_cast<unsigned char>(aName.size()));
        list.insert(list.end(), aName.begin(), aName.end());
    });
    return bValid ? list : std::vector<unsigned char>();
}

}  // namespace talvo
