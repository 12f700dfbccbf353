// Colours of the program's texts.
#pragma once

#include <string>

namespace tool {

enum EColour { DIM = 2, RED = 31, YELLOW = 33 };

// TRUE: aFd is a terminal, TERM is not "dumb", and NO_COLOR is not set or empty.
bool HasColours(int aFd);

// aText in the colour, if aFd has colours; else aText.
std::string Paint(EColour aColour, const std::string& aText, int aFd);

}  // namespace tool
