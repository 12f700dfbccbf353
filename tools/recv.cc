#include <fcntl.h>

#include <cerrno>

#include "tools/application.h"
#include "tools/commands.h"
#include "tools/receiver.h"
#include "tools/text.h"

namespace tool {

namespace {

void TidyUp(int aDirectory, Console& aConsole) {
    for (const std::string& strName : IncomingFile::RemoveLeftovers(aDirectory))
        aConsole.Report("removed " + strName + ", left by a killed recv", JsonLine("removed").Add("name", strName));
}

}  // namespace

int RunRecv(const Arguments& aArguments) {
    Console console(aArguments.m_bJson);
    // Kept open, so that the files go into this directory even if its path changes its meaning.
    FileHandle directory(open(aArguments.m_strDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        console.Problem({CAUSE_LOCAL, "cannot open '" + aArguments.m_strDirectory + "': " + SystemError(errno)}, "name",
                        aArguments.m_strDirectory);
        return EXIT_FAILED;
    }
    Application::RaiseDescriptorLimit();
    const auto pOut = std::make_shared<IncomingFolder>(std::move(directory));
    int nStatus = EXIT_FAILED;
    {
        Application application(CCmThreadManager::NETWORK_THREAD_OWN);
        {
            Receiver receiver(aArguments, pOut, application, console);
            receiver.Start();
            TidyUp(pOut->GetFd(), console);
            nStatus = application.Run();
        }
        application.Drain();  // no file is under way any more; the last answers are sent
    }
    return nStatus;
}

}  // namespace tool
