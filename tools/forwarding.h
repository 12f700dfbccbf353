// The arguments and the one line of the exchange that `talvo publish` and `talvo subscribe` share.
#pragma once

#include <string>
#include <vector>

#include "talvo/talvo.h"

namespace tool {

// The values of --policy and of --join.
std::vector<std::string> GetPolicyNames();
std::vector<std::string> GetJoinNames();
// aName is one of these.
ECmForwardPolicy ChoosePolicy(const std::string& aName);

// Bytes of a line. With its end it is one message of a session.
constexpr size_t LONGEST_LINE = (16 << 20) - 1;

// The subscriber's only line: "join all-keys\n".
constexpr size_t JOIN_LINE_LIMIT = 64;
std::string MakeJoinLine(const std::string& aName);
// aLine is a peer's: any other line asks for the next message.
ECmForwardJoin ParseJoinLine(const std::string& aLine);

}  // namespace tool
