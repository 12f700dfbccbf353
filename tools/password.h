// Passwords and secrets, which no argument contains, because other users can see arguments.
#pragma once

#include <string>

namespace tool {

// The places of a password. A file that other users can read gives a warning. Its first line ends with LF or CR LF.
struct PasswordSource {
    const char* m_pOption;      // that demands the password, and that names its file
    const char* m_pFileOption;  // likewise, for error texts
    std::string m_strFile;      // its first line; "": no file
    const char* m_pVariable;    // of the environment, removed when it is read; without a file
    std::string m_strPrompt;    // of the terminal, without echo; without both
};

// aPassword (out): from the source, at most 1,024 bytes. Returns "" or an error text. Ctrl-C and the signals of the
// program end it. Call it before the loop runs.
std::string ReadPassword(const PasswordSource& aSource, std::string& aPassword);

}  // namespace tool
