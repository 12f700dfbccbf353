#include "tools/file_service.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "tools/byte_range.h"
#include "tools/content_type.h"
#include "tools/file_version.h"
#include "tools/memory.h"

namespace tool {

namespace {

using Atoms = CCmHttpAtomList;

void AnswerStatus(ICmChannelHttpServer& aChannel, long aStatus, const char* aText) {
    RequireMemory(aChannel.AnswerText(aStatus, "text/plain; charset=utf-8", std::string(aText) + "\n"));
}

long StatusOfError(int aError) {
    switch (aError) {
    case EACCES:
    case EPERM:
        return 403;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        return 503;
    default:
        return 404;  // a path that leads outside counts as not found
    }
}

void AnswerError(ICmChannelHttpServer& aChannel, long aStatus) {
    AnswerStatus(aChannel, aStatus, aStatus == 403 ? "forbidden" : aStatus == 503 ? "too busy" : "not found");
}

ByteRange GetRange(const CCmHttpRequestHead& aRequest, const FileVersion& aVersion, uint64_t aSize) {
    const CCmString* pRange = aRequest.FindHeader(Atoms::Range);
    const bool bMeant = pRange && aRequest.GetMethod() == Atoms::Get && aVersion.IsRangeMeant(aRequest);
    return ParseByteRange(bMeant ? std::string_view(*pRange) : std::string_view(), aSize);
}

void AnswerFile(ICmChannelHttpServer& aChannel, FileHandle aFile, const struct stat& aStatus, const std::string& aName) {
    const CCmHttpRequestHead& request = aChannel.GetRequest();
    const FileVersion version(aStatus);
    RequireMemory(aChannel.SetHeader(Atoms::ETag, version.GetTag()));
    // A modification time in the future would be later than the answer's own date.
    const int64_t llNow = CCmClock::GetWallUsec() / 1000000;
    RequireMemory(aChannel.SetHeader(Atoms::Last_Modified, cm_format_http_date(std::min(version.GetModified(), llNow))));
    RequireMemory(aChannel.SetHeader(Atoms::Accept_Ranges, "bytes"));
    const long lStatus = version.JudgeConditions(request);
    if (lStatus == 412)
        return AnswerStatus(aChannel, lStatus, "the file has another version");
    if (lStatus == 304) {
        RequireMemory(aChannel.SetStatus(lStatus));
        RequireMemory(aChannel.EndAnswer());
        return;
    }
    const auto ullSize = static_cast<uint64_t>(aStatus.st_size);
    const ByteRange range = GetRange(request, version, ullSize);
    const std::string strSize = "/" + std::to_string(ullSize);
    if (range.m_Kind == ByteRange::UNSATISFIABLE) {
        RequireMemory(aChannel.SetHeader(Atoms::Content_Range, "bytes *" + strSize));
        AnswerStatus(aChannel, 416, "no such range");
        return;
    }
    if (range.m_Kind == ByteRange::PART) {
        RequireMemory(aChannel.SetStatus(206));
        const std::string strLast = std::to_string(range.m_ullFirst + range.m_ullLength - 1);
        RequireMemory(
            aChannel.SetHeader(Atoms::Content_Range, "bytes " + std::to_string(range.m_ullFirst) + "-" + strLast + strSize));
    }
    RequireMemory(aChannel.SetHeader(Atoms::Content_Type, GetContentType(aName)));
    RequireMemory(aChannel.BeginAnswer(range.m_ullLength));
    if (request.GetMethod() == Atoms::Head || range.m_ullLength == 0)
        aChannel.EndAnswer();
    else
        FileSender::Start(&aChannel, std::move(aFile), range.m_ullFirst, range.m_ullLength);
}

}  // namespace

// Without memory for its answer the connection is closed. The others stay. An answer without a part would be wrong.
void FileService::OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) {
    try {
        Answer(*aChannel);
    } catch (const std::bad_alloc&) {
        aChannel->Disconnect(CM_ERROR_OUT_OF_MEMORY);
    }
}

void FileService::Answer(ICmChannelHttpServer& aChannel) const {
    const CCmHttpRequestHead& request = aChannel.GetRequest();
    const CCmHttpAtom method = request.GetMethod();
    RequestPath path;
    if (method != Atoms::Get && method != Atoms::Head) {
        RequireMemory(aChannel.SetHeader(Atoms::Allow, "GET, HEAD"));
        AnswerStatus(aChannel, 405, "GET and HEAD only");
    } else if (!ParseRequestPath(request.GetRequestURI(), path)) {
        AnswerStatus(aChannel, 400, "the target is not a valid path");
    } else {
        AnswerPath(aChannel, path);
    }
}

void FileService::AnswerPath(ICmChannelHttpServer& aChannel, const RequestPath& aPath) const {
    FileHandle file = m_Directory.OpenAt(aPath.m_strPath);
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0)
        return AnswerError(aChannel, StatusOfError(errno));
    if (S_ISDIR(status.st_mode))
        return AnswerDirectory(aChannel, aPath, std::move(file));
    if (!S_ISREG(status.st_mode))
        return AnswerError(aChannel, 403);
    if (aPath.m_bDirectory)
        return AnswerError(aChannel, 404);
    AnswerFile(aChannel, std::move(file), status, aPath.m_strPath);
}

void FileService::AnswerDirectory(ICmChannelHttpServer& aChannel, const RequestPath& aPath, FileHandle aDirectory) const {
    const std::string strPath = "/" + aPath.m_strPath + (aPath.m_strPath.empty() ? "" : "/");
    if (!aPath.m_bDirectory) {  // relative links of the page need the trailing slash
        RequireMemory(aChannel.SetHeader(Atoms::Location, EncodePath(strPath)));
        return AnswerStatus(aChannel, 301, "it is a directory");
    }
    FileHandle index = m_Directory.OpenAt((strPath + "index.html").substr(1));
    struct stat status {};
    if (index && fstat(index.Get(), &status) == 0 && S_ISREG(status.st_mode))
        return AnswerFile(aChannel, std::move(index), status, "index.html");
    const std::string strPage = MakeDirectoryPage(m_Directory, std::move(aDirectory), aPath.m_strPath);
    if (strPage.empty())
        return AnswerError(aChannel, StatusOfError(errno));
    RequireMemory(aChannel.AnswerText(200, "text/html; charset=utf-8", strPage));
}

}  // namespace tool
