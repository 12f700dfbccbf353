// Answers requests with files of a directory.
#pragma once

#include "tools/file_variant.h"
#include "tools/request_path.h"
#include "tools/serve_options.h"

namespace tool {

// Answers GET and HEAD of files, with at most one range, and of directories: their index file, or a list of their entries.
// Answers OPTIONS as well.
class FileService : public ICmChannelServerAcceptorSink, public ICmHttpRefusalSink {
public:
    // aLog: null without an access log. All three outlive the answers.
    FileService(const ServedDirectory& aDirectory, const ServeOptions& aOptions, AccessLog* aLog)
        : m_Directory(aDirectory), m_Options(aOptions), m_pLog(aLog) {}

    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor* aAcceptor) override;
    void OnRefused(int aStatus, const CCmHttpRequestHead& aRequest, const CCmInetAddr& aPeer, CmDword aBytes) override;

private:
    // These may throw std::bad_alloc.
    void Answer(ServedAnswer& aAnswer) const;
    void AddOrigin(ServedAnswer& aAnswer) const;
    void AnswerOptions(ServedAnswer& aAnswer) const;
    void AnswerPath(ServedAnswer& aAnswer, const RequestPath& aPath) const;
    void AnswerFile(ServedAnswer& aAnswer, const std::string& aPath, FileHandle aFile, const struct stat& aStatus) const;
    void AnswerDirectory(ServedAnswer& aAnswer, const RequestPath& aPath, FileHandle aDirectory) const;
    bool AnswerIndex(ServedAnswer& aAnswer, const std::string& aDirectory) const;
    void AnswerPage(ServedAnswer& aAnswer, const RequestPath& aPath, FileHandle aDirectory) const;

    const ServedDirectory& m_Directory;
    const ServeOptions& m_Options;
    AccessLog* const m_pLog;
};

}  // namespace tool
