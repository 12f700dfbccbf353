// The destination of `talvo get`.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tool {

// The checked target of -o FILE. The check comes before any request and any change.
struct OutputTarget {
    enum EKind {
        STDOUT,
        REGULAR,  // a regular file, or no file yet
        SPECIAL   // a device or a pipe: written directly, never replaced
    };
    EKind m_Kind = STDOUT;
    std::string m_strPath;  // with symbolic links at its end resolved, dangling ones as well
};

// aPath as given; "", "-" and "/dev/stdout" are stdout. aTarget (out). Returns "" or an error text.
std::string JudgeTarget(const std::string& aPath, OutputTarget& aTarget);

// A version of a file, as its server names it.
struct FileEdition {
    static constexpr uint64_t NO_SIZE = UINT64_MAX;  // unknown

    std::string m_strTag;  // "": unknown, so a beginning of it cannot be continued
    uint64_t m_ullSize = NO_SIZE;
    std::string m_strSource;  // a hash of the URL, since a tag is valid for one URL only; "": unknown
};

// The operations return "" or an error text. Nothing outside is changed before Begin. One object serves all attempts to fetch
// its content.
class Output {
public:
    virtual ~Output() = default;

    // Looks for the beginning that an earlier attempt has left, and changes nothing. GetSize and GetEdition return its result.
    virtual std::string LookForBeginning() = 0;
    virtual uint64_t GetSize() const = 0;               // 0: no beginning
    virtual const FileEdition& GetEdition() const = 0;  // that the beginning is of
    // FALSE: bytes that cannot be taken back are out, so only their rest may follow.
    virtual bool MayBegin() const = 0;

    // A suitable answer has come, and its whole body follows.
    virtual std::string Begin(const FileEdition& aEdition) = 0;
    // The answer has the rest behind the beginning.
    virtual std::string Continue() = 0;
    virtual std::string Write(std::string_view aBytes) = 0;
    // The file is complete.
    virtual std::string Publish() = 0;
};

// Writes directly to an existing target; an empty path is stdout.
class DirectOutput : public Output {
public:
    explicit DirectOutput(std::string aPath) : m_strPath(std::move(aPath)) {}
    ~DirectOutput() override;

    std::string LookForBeginning() override { return ""; }
    uint64_t GetSize() const override { return m_ullSize; }
    const FileEdition& GetEdition() const override { return m_Edition; }
    bool MayBegin() const override { return m_ullSize == 0; }

    // Begin and Write wait for the reader of a pipe, until a signal ends the program.
    std::string Begin(const FileEdition& aEdition) override;
    std::string Continue() override { return ""; }
    std::string Write(std::string_view aBytes) override;
    std::string Publish() override;

private:
    std::string Problem() const;

    const std::string m_strPath;
    int m_nFd = -1;
    size_t m_stPiece = 0;
    uint64_t m_ullSize = 0;  // bytes written in all attempts
    FileEdition m_Edition;
};

}  // namespace tool
