#include "tools/password.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "tools/application.h"
#include "tools/console.h"
#include "tools/file_handle.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr size_t LONGEST_PASSWORD = 1024;

// Without echo while in scope. Ctrl-C then only ends the line.
class SilentTerminal {
public:
    explicit SilentTerminal(int aFd) : m_nFd(aFd), m_bIsOne(tcgetattr(aFd, &m_Before) == 0) {
        termios silent = m_Before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
        silent.c_cc[VEOL] = m_Before.c_cc[VINTR];
        m_bIsOne = m_bIsOne && tcsetattr(aFd, TCSAFLUSH, &silent) == 0;
    }
    ~SilentTerminal() {
        if (m_bIsOne)
            tcsetattr(m_nFd, TCSAFLUSH, &m_Before);
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;

    bool IsOne() const { return m_bIsOne; }
    char GetInterrupt() const { return static_cast<char>(m_Before.c_cc[VINTR]); }

private:
    const int m_nFd;
    termios m_Before{};
    bool m_bIsOne;
};

enum EEnd { WHOLE, INTERRUPTED, SIGNALLED, NO_TERMINAL, NO_LINE };

// NO_LINE: aLine was the rest of the input.
EEnd ReadLine(int aFd, char aInterrupt, std::string& aLine) {
    char c = 0;
    while (aLine.size() <= LONGEST_PASSWORD) {
        if (!Application::WaitFor(aFd, POLLIN))
            return SIGNALLED;
        if (read(aFd, &c, 1) != 1)
            return NO_LINE;
        if (c == '\n')
            break;
        if (c == aInterrupt)
            return INTERRUPTED;
        aLine += c;
    }
    return WHOLE;
}

EEnd ReadTyped(const std::string& aPrompt, std::string& aLine) {
    const FileHandle terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!terminal)
        return NO_TERMINAL;
    const SilentTerminal silent(terminal.Get());
    if (!silent.IsOne())
        return NO_TERMINAL;
    WriteAll(terminal.Get(), aPrompt);
    const EEnd end = ReadLine(terminal.Get(), silent.GetInterrupt(), aLine);
    WriteAll(terminal.Get(), "\n");
    return end;
}

constexpr char NO_INTERRUPT = '\n';  // a line has none

std::string ReadFile(const PasswordSource& aSource, std::string& aPassword, EEnd& aEnd) {
    const std::string& strPath = aSource.m_strFile;
    const FileHandle file(open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file)
        return std::string(aSource.m_pFileOption) + ": cannot read '" + strPath + "': " + SystemError(errno);
    struct stat status {};
    if (fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0)
        Console::Complain("warning: other users can read '" + strPath + "'; use chmod 600");
    aEnd = ReadLine(file.Get(), NO_INTERRUPT, aPassword);
    aEnd = aEnd == NO_LINE ? WHOLE : aEnd;  // the last line of a file needs no end
    if (aPassword.ends_with('\r'))
        aPassword.pop_back();
    const bool bEmpty = aEnd == WHOLE && aPassword.empty();
    return bEmpty ? std::string(aSource.m_pFileOption) + ": the first line of '" + strPath + "' is empty" : "";
}

}  // namespace

std::string ReadPassword(const PasswordSource& aSource, std::string& aPassword) {
    aPassword.clear();
    aPassword.reserve(LONGEST_PASSWORD + 1);  // the text has one place in memory
    EEnd end = WHOLE;
    if (!aSource.m_strFile.empty()) {
        const std::string strProblem = ReadFile(aSource, aPassword, end);
        if (!strProblem.empty())
            return strProblem;
    } else if (char* pValue = std::getenv(aSource.m_pVariable)) {
        aPassword = pValue;
        explicit_bzero(pValue, aPassword.size());
        unsetenv(aSource.m_pVariable);
    } else {
        end = ReadTyped(aSource.m_strPrompt, aPassword);
    }
    if (end == INTERRUPTED)
        std::exit(128 + SIGINT);
    if (end == SIGNALLED)
        std::exit(128 + Application::GetPendingSignal());
    if (end == NO_TERMINAL)
        return std::string(aSource.m_pOption) + " needs a terminal, " + aSource.m_pFileOption + ", or the variable " +
               aSource.m_pVariable;
    if (end == NO_LINE)
        return std::string(aSource.m_pOption) + ": the input ended before the line";
    const bool bLong = aPassword.size() > LONGEST_PASSWORD;
    return bLong ? std::string(aSource.m_pOption) + ": at most " + std::to_string(LONGEST_PASSWORD) + " bytes" : "";
}

}  // namespace tool
