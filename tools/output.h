// Where `talvo get` puts what it fetches.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace tool {

// What -o FILE comes to, looked at before anything is asked for or touched.
struct OutputTarget {
    enum EKind {
        STDOUT,
        REGULAR,  // a regular file, or nothing yet
        SPECIAL   // a device, a pipe: written to as it is, never replaced
    };
    EKind m_Kind = STDOUT;
    std::string m_strPath;  // symbolic links at its end followed, whether they lead to something or not
};

// aPath as typed; "", "-" and "/dev/stdout" are stdout. "" and aTarget is filled, or why nothing can be written there.
std::string JudgeTarget(const std::string& aPath, OutputTarget& aTarget);

// The operations return "" or, in words, what went wrong. Nothing outside is touched before Begin.
class Output {
public:
    virtual ~Output() = default;

    // There is an answer that fits, and all of it follows. aTag: what the server calls this version, or "".
    virtual std::string Begin(std::string_view aTag) = 0;
    virtual std::string Write(std::string_view aBytes) = 0;
    // It is whole.
    virtual std::string Publish() = 0;
};

// Writes at once to what is there; an empty path is stdout.
class DirectOutput : public Output {
public:
    explicit DirectOutput(std::string aPath) : m_strPath(std::move(aPath)) {}
    ~DirectOutput() override;

    // These two wait for the reader of a pipe, until a signal wants to end the program.
    std::string Begin(std::string_view aTag) override;
    std::string Write(std::string_view aBytes) override;
    std::string Publish() override;

private:
    std::string Problem() const;

    const std::string m_strPath;
    int m_nFd = -1;
    size_t m_stPiece = 0;
};

}  // namespace tool
