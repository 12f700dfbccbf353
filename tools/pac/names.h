// Names and addresses of the network, which the parent finds.
#pragma once

#include <string>

namespace pac {

// Each waits for the parent, and keeps the answer until the next question. "": there is none.
std::string ResolveIpv4(const std::string& aName);  // the first IPv4 address
std::string ResolveAll(const std::string& aName);   // the addresses of both families, separated by ";"
std::string GetMyIpv4();
std::string GetMyAddresses();  // separated by ";"

// A new question begins.
void ForgetNames();

}  // namespace pac
