// The challenges that proxies have sent to earlier requests.
#pragma once

#include "talvo/base/export.h"
#include "talvo/http/message/http_offer.h"

namespace talvo {

// The last accepted offer of each proxy, for the whole process; without credentials. The number of proxies is bounded. Any
// thread.
class TALVO_API CProxyOffers {
public:
    static constexpr size_t MAX_PROXIES = 64;

    // aOffer (out): the offer for this request. Each call that counts is one use of its nonce. FALSE: none is known.
    static BOOL Find(const CCmString& aProxy, BOOL aCounts, CHttpOffer& aOffer);
    // The one used longest ago makes room. May throw std::bad_alloc.
    static void Store(const CCmString& aProxy, const CHttpOffer& aOffer);
    // For tests.
    static void Clear();
};

}  // namespace talvo
