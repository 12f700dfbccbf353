#include "tools/file_service.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "tools/byte_range.h"
#include "tools/content_coding.h"
#include "tools/content_type.h"
#include "tools/directory_page.h"
#include "tools/file_version.h"

namespace tool {

namespace {

using Atoms = CCmHttpAtomList;

constexpr const char* METHODS = "GET, HEAD, OPTIONS";

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

void AnswerError(ServedAnswer& aAnswer, long aStatus) {
    aAnswer.SendStatus(aStatus, aStatus == 403 ? "forbidden" : aStatus == 503 ? "too busy" : "not found");
}

// Headers of all answers about a file, also those without its content. Returns the status of the request's conditions.
long AddVersion(ServedAnswer& aAnswer, const FileVersion& aVersion) {
    aAnswer.SetHeader(Atoms::ETag, aVersion.GetTag());
    // A modification time in the future would be later than the answer's own date.
    const int64_t llNow = CCmClock::GetWallUsec() / 1000000;
    aAnswer.SetHeader(Atoms::Last_Modified, cm_format_http_date(std::min(aVersion.GetModified(), llNow)));
    aAnswer.SetHeader(Atoms::Accept_Ranges, "bytes");
    return aVersion.JudgeConditions(aAnswer.GetRequest());
}

ByteRange GetRange(const CCmHttpRequestHead& aRequest, const FileVersion& aVersion, uint64_t aSize) {
    const CCmString* pRange = aRequest.FindHeader(Atoms::Range);
    const bool bMeant = pRange && aRequest.GetMethod() == Atoms::Get && aVersion.IsRangeMeant(aRequest);
    return ParseByteRange(bMeant ? std::string_view(*pRange) : std::string_view(), aSize);
}

void SendPlain(ServedAnswer& aAnswer, FileHandle aFile, const ByteRange& aRange, uint64_t aSize) {
    const std::string strSize = "/" + std::to_string(aSize);
    if (aRange.m_Kind == ByteRange::UNSATISFIABLE) {
        aAnswer.SetHeader(Atoms::Content_Range, "bytes *" + strSize);
        return aAnswer.SendStatus(416, "no such range");
    }
    const std::string strLast = std::to_string(aRange.m_ullFirst + aRange.m_ullLength - 1);
    if (aRange.m_Kind == ByteRange::PART)
        aAnswer.SetHeader(Atoms::Content_Range, "bytes " + std::to_string(aRange.m_ullFirst) + "-" + strLast + strSize);
    auto pSource = std::make_unique<FileSource>(std::move(aFile), aRange.m_ullFirst, aRange.m_ullLength);
    aAnswer.SendBody(aRange.m_Kind == ByteRange::PART ? 206 : 200, std::move(pSource), aRange.m_ullLength);
}

void SendCompressed(ServedAnswer& aAnswer, std::unique_ptr<BodySource> aSource) {
    aAnswer.SetHeader(Atoms::Content_Encoding, "gzip");
    aAnswer.SendBody(200, std::make_unique<GzipSource>(std::move(aSource)), ICmChannelHttpServer::UNKNOWN_LENGTH);
}

}  // namespace

// Without memory for its answer the connection is closed. The others stay. An answer without a part would be wrong.
void FileService::OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) {
    try {
        ServedAnswer answer(*aChannel, m_pLog);
        Answer(answer);
    } catch (const std::bad_alloc&) {
        aChannel->Disconnect(CM_ERROR_OUT_OF_MEMORY);
    }
}

// Without memory for it the line is left out.
void FileService::OnRefused(int aStatus, const CCmHttpRequestHead& aRequest, const CCmInetAddr& aPeer, CmDword aBytes) {
    if (!m_pLog)
        return;
    talvo::WithMemory([&] {
        AccessRecord record(*m_pLog, aRequest, aPeer);
        record.SetStatus(aStatus);
        record.AddBytes(aBytes);
    });
}

void FileService::Answer(ServedAnswer& aAnswer) const {
    const CCmHttpRequestHead& request = aAnswer.GetRequest();
    const CCmHttpAtom method = request.GetMethod();
    RequestPath path;
    AddOrigin(aAnswer);
    if (method == Atoms::Options) {
        AnswerOptions(aAnswer);
    } else if (method != Atoms::Get && method != Atoms::Head) {
        aAnswer.SetHeader(Atoms::Allow, METHODS);
        aAnswer.SendStatus(405, std::string(METHODS) + " only");
    } else if (!ParseRequestPath(request.GetRequestURI(), path)) {
        aAnswer.SendStatus(400, "the target is not a valid path");
    } else {
        AnswerPath(aAnswer, path);
    }
}

// With an origin of its own an answer must not be taken from a cache for another origin.
void FileService::AddOrigin(ServedAnswer& aAnswer) const {
    if (m_Options.m_strOrigin.empty())
        return;
    aAnswer.SetHeader("Access-Control-Allow-Origin", m_Options.m_strOrigin);
    aAnswer.SetHeader("Access-Control-Expose-Headers", "Accept-Ranges, Content-Encoding, Content-Length, Content-Range, ETag");
    if (m_Options.m_strOrigin != "*")
        aAnswer.AddVary("Origin");
}

// Methods and headers are the same for all targets, so the target is not looked at.
void FileService::AnswerOptions(ServedAnswer& aAnswer) const {
    aAnswer.SetHeader(Atoms::Allow, METHODS);
    if (!m_Options.m_strOrigin.empty()) {
        aAnswer.SetHeader("Access-Control-Allow-Methods", METHODS);
        aAnswer.SetHeader("Access-Control-Allow-Headers", "*");
        aAnswer.SetHeader("Access-Control-Max-Age", "86400");
    }
    aAnswer.SendNothing(204);
}

void FileService::AnswerPath(ServedAnswer& aAnswer, const RequestPath& aPath) const {
    FileHandle file = m_Directory.OpenAt(aPath.m_strPath);
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0)
        return AnswerError(aAnswer, StatusOfError(errno));
    if (S_ISDIR(status.st_mode))
        return AnswerDirectory(aAnswer, aPath, std::move(file));
    if (!S_ISREG(status.st_mode))
        return AnswerError(aAnswer, 403);
    if (aPath.m_bDirectory)
        return AnswerError(aAnswer, 404);
    AnswerFile(aAnswer, aPath.m_strPath, std::move(file), status);
}

void FileService::AnswerFile(ServedAnswer& aAnswer, const std::string& aPath, FileHandle aFile,
                             const struct stat& aStatus) const {
    FileVariant variant = ChooseVariant(aAnswer, m_Directory, aPath, std::move(aFile), aStatus);
    const FileVersion version(variant.m_Status, variant.m_Form == FileVariant::COMPRESSED);
    const auto ullSize = static_cast<uint64_t>(variant.m_Status.st_size);
    const long lStatus = AddVersion(aAnswer, version);
    if (lStatus == 412)
        return aAnswer.SendStatus(lStatus, "the file has another version");
    if (lStatus == 304)
        return aAnswer.SendNothing(lStatus);
    const ByteRange range = GetRange(aAnswer.GetRequest(), version, ullSize);
    if (range.m_Kind != ByteRange::UNSATISFIABLE)
        aAnswer.SetHeader(Atoms::Content_Type, GetContentType(aPath));
    if (variant.m_Form == FileVariant::COMPRESSED)
        return SendCompressed(aAnswer, std::make_unique<FileSource>(std::move(variant.m_File), 0, ullSize));
    if (variant.m_Form == FileVariant::STORED)
        aAnswer.SetHeader(Atoms::Content_Encoding, "gzip");
    SendPlain(aAnswer, std::move(variant.m_File), range, ullSize);
}

void FileService::AnswerDirectory(ServedAnswer& aAnswer, const RequestPath& aPath, FileHandle aDirectory) const {
    const std::string strPath = aPath.m_strPath + (aPath.m_strPath.empty() ? "" : "/");
    if (!aPath.m_bDirectory) {  // relative links of the page need the trailing slash
        aAnswer.SetHeader(Atoms::Location, "/" + EncodePath(strPath));
        return aAnswer.SendStatus(301, "it is a directory");
    }
    if (!AnswerIndex(aAnswer, strPath))
        AnswerPage(aAnswer, aPath, std::move(aDirectory));
}

// false: there is no such file.
bool FileService::AnswerIndex(ServedAnswer& aAnswer, const std::string& aDirectory) const {
    if (m_Options.m_strIndex.empty())
        return false;
    FileHandle index = m_Directory.OpenAt(aDirectory + m_Options.m_strIndex);
    struct stat status {};
    if (!index || fstat(index.Get(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    AnswerFile(aAnswer, aDirectory + m_Options.m_strIndex, std::move(index), status);
    return true;
}

void FileService::AnswerPage(ServedAnswer& aAnswer, const RequestPath& aPath, FileHandle aDirectory) const {
    DirectoryListing listing;
    if (!ListDirectory(m_Directory, std::move(aDirectory), aPath.m_strPath, listing))
        return AnswerError(aAnswer, StatusOfError(errno));
    std::string strPage = MakeDirectoryPage(aPath.m_strPath, listing, ParsePageOrder(aPath.m_strQuery));
    const size_t stSize = strPage.size();
    auto pSource = std::make_unique<TextSource>(std::move(strPage));
    aAnswer.SetHeader(Atoms::Content_Type, "text/html; charset=utf-8");
    aAnswer.SetHeader("Content-Security-Policy", "default-src 'none'; style-src 'unsafe-inline'");
    aAnswer.AddVary("Accept-Encoding");
    if (AcceptsGzip(aAnswer.GetRequestHeader(Atoms::Accept_Encoding)) && GzipSource::IsAvailable())
        SendCompressed(aAnswer, std::move(pSource));
    else
        aAnswer.SendBody(200, std::move(pSource), stSize);
}

}  // namespace tool
