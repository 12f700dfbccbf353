// Addresses that a person typed or a socket call filled in. An accepted one prints as a text of the same address.
#include <algorithm>
#include <cstring>

#include "fuzz/fuzz_input.h"
#include "talvo/base/inet_addr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    const std::string strText(reinterpret_cast<const char*>(aData), aSize);
    CCmInetAddr addr, again;
    if (CCmInetAddr::Parse(strText, addr) == CM_OK && addr.IsResolved()) {
        const std::string strPrefix = addr.GetType() == AF_UNIX ? "unix:" : "";
        FUZZ_CHECK(CCmInetAddr::Parse(strPrefix + cm_address_text(addr), again) == CM_OK && again == addr);
    }
    addr.Set(strText.c_str());
    addr.Set(strText.c_str(), 80);
    talvo::CIpBytes ip, same;
    if (talvo::CIpBytes::Parse(strText, ip))
        FUZZ_CHECK(talvo::CIpBytes::Parse(ip.GetText(), same) && same == ip);

    sockaddr_storage storage{};
    const auto length = static_cast<socklen_t>(std::min(aSize, sizeof storage));
    std::memcpy(&storage, aData, length);
    if (cm_from_sockaddr(reinterpret_cast<const sockaddr*>(&storage), length, addr) != CM_OK)
        return 0;
    FUZZ_CHECK(addr.GetSize() <= sizeof(sockaddr_un) && addr.IsResolved());
    FUZZ_CHECK(cm_from_sockaddr(reinterpret_cast<const sockaddr*>(addr.GetPtr()), addr.GetSize(), again) == CM_OK);
    FUZZ_CHECK(again == addr && !(again < addr) && cm_address_text(again) == cm_address_text(addr));
    return 0;
}
