#include <fcntl.h>
#include <unistd.h>

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
    const int nDirectory = open(aArguments.m_strDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (nDirectory < 0) {
        console.Problem("cannot open '" + aArguments.m_strDirectory + "': " + SystemError(errno));
        return EXIT_FAILED;
    }
    Application::RaiseDescriptorLimit();
    int nStatus = EXIT_FAILED;
    {
        Application application(CCmThreadManager::NETWORK_THREAD_OWN);
        {
            Receiver receiver(aArguments, nDirectory, application, console);
            receiver.Start();
            TidyUp(nDirectory, console);
            nStatus = application.Run();
        }
        application.Drain();  // no file is under way any more; the last answers are sent
    }
    close(nDirectory);
    return nStatus;
}

}  // namespace tool
