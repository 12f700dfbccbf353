#include "tools/file_arguments.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tools/common_arguments.h"
#include "tools/file_name.h"
#include "tools/folder_walk.h"
#include "tools/proxy_arguments.h"
#include "tools/text.h"
#include "tools/tls_arguments.h"
#include "tools/transfer_arguments.h"

namespace tool {

namespace {

std::string CheckSource(const std::string& aPath) {
    const std::string strBegin = "'" + aPath + "': ";
    struct stat status {};
    if (aPath == FolderWalk::INPUT)
        return "";
    if (stat(aPath.c_str(), &status) != 0 || access(aPath.c_str(), R_OK) != 0)
        return strBegin + SystemError(errno);
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))
        return strBegin + "neither a regular file nor a folder";
    const std::string strName = CheckFileName(FolderWalk::GetName(aPath));
    return strName.empty() ? "" : strBegin + strName;
}

}  // namespace

void DeclareRecv(CLI::App& aApp, Arguments& a) {
    DeclareListening(aApp, a, "127.0.0.1");
    DeclareType(aApp, a);
    DeclareTlsServer(aApp, a);
    DeclareSecret(aApp, a, "Serve only senders that prove the shared secret in TALVO_SECRET or from the terminal");
    AddText(aApp, "--out", a.m_strDirectory, "DIR", "Directory for the files");
    Require(aApp, "--out");
    AddFlag(aApp, "--force", a.m_bForce, "Replace existing files");
    AddFlag(aApp, "--once", a.m_bOnce,
            "Serve one sender of a file or folder, then exit with 0 if all its files were kept, else with 1");
    AddNumber(aApp, "--timeout", a.m_dwSilenceMs, 1, 86400000,
              "Milliseconds of silence after which a sender is dropped (300000), unless it waits for its own stdin");
}

std::string CheckRecv(Arguments& a) {
    struct stat status {};
    if (stat(a.m_strDirectory.c_str(), &status) != 0)
        return "--out: '" + a.m_strDirectory + "': " + SystemError(errno);
    if (!S_ISDIR(status.st_mode))
        return "--out: '" + a.m_strDirectory + "' is not a directory";
    if (access(a.m_strDirectory.c_str(), W_OK | X_OK) != 0)
        return "--out: cannot write into '" + a.m_strDirectory + "': " + SystemError(errno);
    if (a.m_strHost.empty())
        a.m_strHost = "127.0.0.1";  // it takes files from any peer
    const std::string strListening = CheckListening(a);
    return strListening.empty() ? CheckSecret(a) : strListening;
}

void DeclareSend(CLI::App& aApp, Arguments& a) {
    DeclareType(aApp, a);
    DeclareTlsClient(aApp, a);
    DeclareProxy(aApp, a);
    DeclareBind(aApp, a);
    DeclareSecret(aApp, a, "Prove the shared secret in TALVO_SECRET or from the terminal, and demand the same of the receiver");
    DeclareTransfer(aApp, a.m_Transfer);
    AddNumber(aApp, "--timeout", a.m_dwSilenceMs, 1, 86400000,
              "Milliseconds of silence after which the receiver counts as lost (300000); it sends a sign of life every 30 s");
    AddText(aApp, "--name", a.m_strName, "NAME", "Name of stdin at the receiver (stdin)");
    // One list, which CheckSend splits: with a second positional argument, options could not follow the files.
    AddList(aApp, "FILE", a.m_vecFiles, "PATH... ENDPOINT",
            "Files, folders with all that is in them, or - for stdin, and last the endpoint of `talvo recv`, see talvo --help");
    Require(aApp, "FILE");
}

std::string CheckSend(Arguments& a) {
    if (a.m_vecFiles.size() < 2)
        return "send needs at least one FILE and, last, HOST:PORT or unix:PATH";
    a.m_strEndpoint = a.m_vecFiles.back();
    a.m_vecFiles.pop_back();
    const std::string strPeer = CheckPeer(a, a.m_strEndpoint);
    if (!strPeer.empty())
        return strPeer;
    for (const std::string& strPath : a.m_vecFiles) {
        const std::string strProblem = CheckSource(strPath);
        if (!strProblem.empty())
            return strProblem;
    }
    const auto nInputs = std::count(a.m_vecFiles.begin(), a.m_vecFiles.end(), FolderWalk::INPUT);
    if (nInputs > 1)
        return "stdin can be sent once";
    if (nInputs == 0 && a.m_strName != Arguments().m_strName)
        return "--name is for stdin, which is sent as -";
    const std::string strName = CheckFileName(a.m_strName);
    if (!strName.empty())
        return "--name: " + strName;
    const std::string strTransfer = CheckTransfer(a.m_Transfer);
    if (!strTransfer.empty())
        return strTransfer;
    const std::string strProxy = CheckProxy(a);
    return strProxy.empty() ? CheckSecret(a) : strProxy;
}

}  // namespace tool
