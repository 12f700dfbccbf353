#include "tools/colour.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace tool {

namespace {

std::string_view GetVariable(const char* aName) {
    const char* pValue = std::getenv(aName);
    return pValue ? pValue : "";
}

}  // namespace

bool HasColours(int aFd) {
    const std::string_view terminal = GetVariable("TERM");
    return isatty(aFd) && !terminal.empty() && terminal != "dumb" && GetVariable("NO_COLOR").empty();
}

std::string Paint(EColour aColour, const std::string& aText, int aFd) {
    return HasColours(aFd) ? "\x1b[" + std::to_string(aColour) + "m" + aText + "\x1b[0m" : aText;
}

}  // namespace tool
