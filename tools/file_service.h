// Answers requests with files of a directory.
#pragma once

#include <sys/stat.h>

#include "tools/file_sender.h"
#include "tools/request_path.h"

namespace tool {

// GET and HEAD of files, one range of them, and of directories: their index.html, or a page with what lies in them.
class FileService : public ICmChannelServerAcceptorSink {
public:
    explicit FileService(const ServedDirectory& aDirectory) : m_Directory(aDirectory) {}

    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor* aAcceptor) override;

private:
    // The rest throws std::bad_alloc.
    void Answer(ICmChannelHttpServer& aChannel) const;
    void AnswerPath(ICmChannelHttpServer& aChannel, const RequestPath& aPath) const;
    void AnswerDirectory(ICmChannelHttpServer& aChannel, const RequestPath& aPath, FileHandle aDirectory) const;

    const ServedDirectory& m_Directory;
};

}  // namespace tool
