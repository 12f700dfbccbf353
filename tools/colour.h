// Colours of the program's texts.
#pragma once

#include <string>

namespace tool {

enum EColour { RED = 31, GREEN = 32, YELLOW = 33, DIM = 2 };

// TRUE: aFd is a terminal, TERM is not "dumb", and NO_COLOR is not set or empty.
bool HasColours(int aFd);

// aText in the colour, if aFd has colours; else aText.
std::string Paint(EColour aColour, const std::string& aText, int aFd);

}  // namespace tool
