// Answers requests with files of a directory.
#pragma once

#include <sys/stat.h>

#include "tools/file_sender.h"
#include "tools/request_path.h"

namespace tool {

// Answers GET and HEAD of files, with at most one range, and of directories: their index.html, or a list of their entries.
class FileService : public ICmChannelServerAcceptorSink {
public:
    explicit FileService(const ServedDirectory& aDirectory) : m_Directory(aDirectory) {}

    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor* aAcceptor) override;

private:
    // May throw std::bad_alloc.
    void Answer(ICmChannelHttpServer& aChannel) const;
    void AnswerPath(ICmChannelHttpServer& aChannel, const RequestPath& aPath) const;
    void AnswerDirectory(ICmChannelHttpServer& aChannel, const RequestPath& aPath, FileHandle aDirectory) const;

    const ServedDirectory& m_Directory;
};

}  // namespace tool
