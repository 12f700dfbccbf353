#include "tools/forwarding.h"

namespace tool {

namespace {

struct Policy {
    const char* m_pName;
    ECmForwardPolicy m_Policy;
};
constexpr Policy POLICIES[] = {{"disconnect", CM_FORWARD_DISCONNECT},
                               {"drop-oldest", CM_FORWARD_DROP_OLDEST},
                               {"conflate", CM_FORWARD_CONFLATE},
                               {"wait", CM_FORWARD_WAIT}};

struct JoinPoint {
    const char* m_pName;
    ECmForwardJoin m_Join;
};
constexpr JoinPoint JOIN_POINTS[] = {
    {"next", CM_FORWARD_JOIN_NEXT}, {"all-keys", CM_FORWARD_JOIN_ALL_KEYS}, {"oldest", CM_FORWARD_JOIN_OLDEST}};

template <class Table>
std::vector<std::string> NamesOf(const Table& aTable) {
    std::vector<std::string> vecNames;
    for (const auto& row : aTable)
        vecNames.emplace_back(row.m_pName);
    return vecNames;
}

}  // namespace

std::vector<std::string> GetPolicyNames() { return NamesOf(POLICIES); }
std::vector<std::string> GetJoinNames() { return NamesOf(JOIN_POINTS); }

ECmForwardPolicy ChoosePolicy(const std::string& aName) {
    for (const Policy& policy : POLICIES) {
        if (aName == policy.m_pName)
            return policy.m_Policy;
    }
    return CM_FORWARD_DISCONNECT;
}

std::string MakeJoinLine(const std::string& aName) { return "join " + aName + "\n"; }

ECmForwardJoin ParseJoinLine(const std::string& aLine) {
    for (const JoinPoint& point : JOIN_POINTS) {
        if (aLine.starts_with(MakeJoinLine(point.m_pName)))
            return point.m_Join;
    }
    return CM_FORWARD_JOIN_NEXT;
}

}  // namespace tool
