#include "tools/get_arguments.h"

#include <fcntl.h>
#include <strings.h>

#include <CLI/CLI.hpp>
#include <cerrno>

#include "tools/file_handle.h"
#include "tools/file_name.h"
#include "tools/password.h"
#include "tools/proxy_arguments.h"
#include "tools/request_path.h"
#include "tools/text.h"
#include "tools/tls_arguments.h"
#include "tools/transfer_arguments.h"
#include "tools/url.h"

namespace tool {

namespace {

constexpr size_t LONGEST_BODY = 64 << 20;
constexpr const char* PASSWORD = "TALVO_PASSWORD";

bool IsFileUrl(const std::string& aUrl) { return strncasecmp(aUrl.c_str(), "file:", 5) == 0; }

// aText (out): the whole file, "-" is stdin.
std::string ReadBody(const std::string& aPath, std::string& aText) {
    const FileHandle file(aPath == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) : open(aPath.c_str(), O_RDONLY | O_CLOEXEC));
    char szPiece[65536];
    ssize_t lRead = 0;
    while (file && aText.size() <= LONGEST_BODY && (lRead = read(file.Get(), szPiece, sizeof szPiece)) > 0)
        aText.append(szPiece, static_cast<size_t>(lRead));
    if (!file || lRead < 0)
        return "--data: cannot read '" + aPath + "': " + SystemError(errno);
    return aText.size() > LONGEST_BODY ? "--data: '" + aPath + "' has more than 64 MiB" : "";
}

// The last part of the URL's path. That of a file URL is taken as it is.
std::string GetRemoteName(const std::string& aUrl, std::string& aName) {
    CCmHttpUrl url;
    RequestPath path;
    url.Init(aUrl);
    const std::string strPath = url.GetPath();
    if (url.GetScheme() == "file")
        path.m_strPath = aUrl;
    else if (!ParseRequestPath(strPath.starts_with('/') ? strPath : "/" + strPath, path) || path.m_bDirectory)
        path.m_strPath.clear();
    aName = GetBaseName(path.m_strPath);
    const std::string strFault = CheckFileName(aName);
    return strFault.empty()
               ? ""
               : "'" + aUrl + "' ends with no name for a file, which --remote-name needs (" + strFault + "); use --out FILE";
}

// The path of the file for a job; "": stdout.
std::string ChoosePath(const GetOptions& aOptions, const std::string& aUrl, std::string& aPath) {
    const bool bNamed = !aOptions.m_strOutput.empty();
    aPath = aOptions.m_strOutput;
    const bool bRemote = aOptions.m_bRemoteName || (!bNamed && !aOptions.m_strDirectory.empty());
    const std::string strFault = bRemote ? GetRemoteName(aUrl, aPath) : "";
    if (!strFault.empty() || aOptions.m_strDirectory.empty())
        return strFault;
    if (aPath.starts_with('/') || aPath == "-")
        return "--output-dir needs a relative name in --out";
    aPath = aOptions.m_strDirectory + "/" + aPath;
    return "";
}

std::string MakeJob(GetOptions& aOptions, const std::string& aUrl) {
    GetJob job{aUrl, "", {}};
    std::string strFault = CheckUrl(aUrl);
    if (strFault.empty())
        strFault = ChoosePath(aOptions, aUrl, job.m_strName);
    if (!strFault.empty())
        return strFault;
    const std::string strTarget = JudgeTarget(job.m_strName, job.m_Target);
    if (!strTarget.empty())
        return (aOptions.m_strOutput.empty() ? "--remote-name: " : "--out: ") + strTarget;
    for (const GetJob& other : aOptions.m_vecJobs) {
        if (job.m_Target.m_Kind != OutputTarget::STDOUT && other.m_Target.m_strPath == job.m_Target.m_strPath)
            return "two URLs have the file '" + job.m_strName + "'";
    }
    aOptions.m_vecJobs.push_back(std::move(job));
    return "";
}

std::string CheckJobs(const Arguments& a) {
    const GetOptions& options = a.m_Get;
    for (const GetJob& job : options.m_vecJobs) {
        if (options.m_bContinue && job.m_Target.m_Kind != OutputTarget::REGULAR)
            return "--continue needs a file, by --out or --remote-name";
        if (a.m_bJson && job.m_Target.m_Kind == OutputTarget::STDOUT)
            return "--json needs --out or --remote-name";
        if (IsFileUrl(job.m_strUrl) && (a.m_pContext || !a.m_Proxy.m_Route.IsEmpty()))
            return a.m_pContext ? "a file URL has no TLS" : "a file URL has no proxy";
        if (IsFileUrl(job.m_strUrl) && (!options.m_strMethod.empty() || !options.m_vecFields.empty()))
            return "a file URL has no method, headers or data";
    }
    return "";
}

// The option for a header that the program itself sends; null: it is the user's.
const char* FindOwner(const std::string& aName, bool aHasData) {
    const auto is = [&](const char* aOwn) { return strcasecmp(aName.c_str(), aOwn) == 0; };
    if (is("Range") || is("If-Range"))
        return "--continue";
    return is("Content-Length") || (is("Transfer-Encoding") && !aHasData) ? "--data" : nullptr;
}

// "Name: value", or "Name:" for none.
std::string CheckHeader(GetOptions& aOptions, const std::string& aHeader) {
    const size_t stColon = aHeader.find(':');
    const std::string strName = aHeader.substr(0, stColon);
    if (stColon == std::string::npos || strName.empty() || strName.find_first_of(" \t") != std::string::npos)
        return "--header: '" + aHeader + "' is not NAME: VALUE";
    if (const char* pOwner = FindOwner(strName, aOptions.m_bHasData))
        return "--header: the program itself sends " + strName + ", see " + pOwner;
    const size_t stValue = aHeader.find_first_not_of(" \t", stColon + 1);
    aOptions.m_vecFields.emplace_back(strName, stValue == std::string::npos ? "" : aHeader.substr(stValue));
    return "";
}

std::string CheckRequest(GetOptions& aOptions) {
    for (const std::string& strHeader : aOptions.m_vecHeaders) {
        const std::string strFault = CheckHeader(aOptions, strHeader);
        if (!strFault.empty())
            return strFault;
    }
    if (aOptions.m_bHasData && aOptions.m_strMethod.empty())
        aOptions.m_strMethod = "POST";
    if (aOptions.m_bContinue && !aOptions.m_strMethod.empty() && aOptions.m_strMethod != "GET")
        return "--continue is for GET only";
    if (!aOptions.m_strData.starts_with('@')) {
        aOptions.m_strBody = aOptions.m_strData;
        return "";
    }
    return ReadBody(aOptions.m_strData.substr(1), aOptions.m_strBody);
}

std::string CheckUser(GetOptions& aOptions) {
    if (aOptions.m_strUser.find(':') != std::string::npos)
        return std::string("--user is the name only; the password is read from --password-file, ") + PASSWORD +
               " or the terminal";
    if (aOptions.m_strUser.empty())
        return aOptions.m_strPasswordFile.empty() ? "" : "--password-file needs --user";
    const std::string strPrompt = "Password of " + aOptions.m_strUser + ": ";
    return ReadPassword({"--user", "--password-file", aOptions.m_strPasswordFile, PASSWORD, strPrompt}, aOptions.m_strPassword);
}

void DeclareRequest(CLI::App& aApp, GetOptions& aOptions) {
    aApp.add_option("-H,--header", aOptions.m_vecHeaders, "Header of the request, any number of times; \"NAME:\" removes one")
        ->option_text("\"NAME: VALUE\"")
        ->take_all()
        ->expected(1);
    aApp.add_option_function<std::string>(
            "-d,--data",
            [&aOptions](const std::string& aData) {
                aOptions.m_strData = aData;
                aOptions.m_bHasData = true;
            },
            "Body of the request, which becomes a POST; @FILE is the content of a file and @- that of stdin")
        ->option_text("TEXT|@FILE");
    aApp.add_option("-X,--method", aOptions.m_strMethod, "Method of the request")->option_text("METHOD");
    aApp.add_option("-u,--user", aOptions.m_strUser,
                    "User at a server that requires one; the password is read from --password-file, TALVO_PASSWORD or the "
                    "terminal")
        ->option_text("NAME");
    aApp.add_option("--password-file", aOptions.m_strPasswordFile, "File whose first line is the password of --user")
        ->option_text("FILE");
}

}  // namespace

void DeclareGet(CLI::App& aApp, Arguments& a) {
    GetOptions& options = a.m_Get;
    aApp.add_option("URL", options.m_vecUrls, "URLs to fetch: http://..., https://... or file://... (of at most 1 MiB)")
        ->required()
        ->option_text("URL...");
    CLI::Option* pOut = aApp.add_option("-o,--out", options.m_strOutput,
                                        "File to write, named FILE.part until it is complete; by default, or with -: stdout")
                            ->option_text("FILE");
    aApp.add_flag("-O,--remote-name", options.m_bRemoteName,
                  "Write each URL to a file with the name of the last part of its path")
        ->excludes(pOut);
    aApp.add_option("--output-dir", options.m_strDirectory, "Directory for the files; without --out it implies --remote-name")
        ->option_text("DIR");
    aApp.add_flag("--continue", options.m_bContinue, "Fetch only the rest if FILE.part is a beginning of the same version");
    aApp.add_option("--connect-to", a.m_strEndpoint, "Connect there instead of to the URL's host; see talvo --help")
        ->option_text("ENDPOINT");
    DeclareRequest(aApp, options);
    DeclareTransfer(aApp, a.m_Transfer);
    DeclareTrust(aApp, a);
    DeclareInsecure(aApp, a);
    DeclareProxy(aApp, a);
}

std::string CheckGet(Arguments& a) {
    GetOptions& options = a.m_Get;
    if (options.m_vecUrls.size() > 1 && !options.m_strOutput.empty() && options.m_strOutput != "-")
        return "--out is for one URL; use --remote-name";
    for (const std::string& strUrl : options.m_vecUrls) {
        const std::string strJob = MakeJob(options, strUrl);
        if (!strJob.empty())
            return strJob;
    }
    const std::string strEndpoint = a.m_strEndpoint.empty() ? "" : ParseEndpoint(a.m_strEndpoint, a.m_Addr);
    if (!strEndpoint.empty())
        return "--connect-to: " + strEndpoint;
    std::string strProblem = CheckTransfer(a.m_Transfer);
    if (strProblem.empty())
        strProblem = CheckRequest(options);
    if (strProblem.empty())
        strProblem = MakeClientContext(a.m_Tls, a.m_pContext);
    if (strProblem.empty())
        strProblem = CheckProxy(a);
    if (strProblem.empty())
        strProblem = CheckJobs(a);
    return strProblem.empty() ? CheckUser(options) : strProblem;
}

}  // namespace tool
