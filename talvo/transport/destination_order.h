// The order in which connectors try the addresses of a name.
#pragma once

#include <vector>

#include "talvo/base/ip_bytes.h"

namespace talvo {

// The address from which the system would send to aDestination; none: there is no route. Sends nothing.
CIpBytes FindSource(const CIpBytes& aDestination);

using CSourceFinder = CIpBytes (*)(const CIpBytes& aDestination);

// Orders addresses by the rules of RFC 6724 that a program can apply: 1 (without a route: removed), 2, 5, 6 and 8; otherwise
// the given order stays. Then the families alternate, as RFC 8305 demands. If no address has a route, or there are only IPv4
// addresses, nothing changes and no system call is made for the latter.
TALVO_API std::vector<CIpBytes> OrderDestinations(std::vector<CIpBytes> aAddresses, CSourceFinder aFindSource = &FindSource);

}  // namespace talvo
