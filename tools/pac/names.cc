#include "tools/pac/names.h"

#include <unistd.h>

#include <map>

#include "tools/pac/wire.h"

namespace pac {

namespace {

constexpr size_t MAX_NAME = 253;

std::map<std::string, std::string> s_Answers;  // by kind and name

std::string Ask(char aKind, const std::string& aName) {
    const std::string strQuestion = aKind + aName;
    const auto known = s_Answers.find(strQuestion);
    if (known != s_Answers.end())
        return known->second;
    WriteFrame('n', strQuestion);
    const Frame answer = ReadFrame();
    if (answer.m_cLetter != 'N')
        _exit(2);
    return s_Answers[strQuestion] = answer.m_strPayload;
}

std::string AskName(char aKind, const std::string& aName) {
    if (aName.empty() || aName.size() > MAX_NAME || aName.find('\0') != aName.npos)
        return "";
    return Ask(aKind, aName);
}

}  // namespace

std::string ResolveIpv4(const std::string& aName) { return AskName('4', aName); }
std::string ResolveAll(const std::string& aName) { return AskName('*', aName); }
std::string GetMyIpv4() { return Ask('m', ""); }
std::string GetMyAddresses() { return Ask('M', ""); }

void ForgetNames() { s_Answers.clear(); }

}  // namespace pac
