#include "talvo/base/read_text.h"

#include <unistd.h>

#include <cerrno>

namespace talvo {

std::optional<CCmString> ReadText(HANDLE aFd, size_t aMax) {
    CCmString strText;
    char szPart[4096];
    while (strText.size() <= aMax) {
        const ssize_t lRead = read(aFd, szPart, sizeof szPart);
        if (lRead > 0)
            strText.append(szPart, static_cast<size_t>(lRead));
        else if (lRead == 0)
            return strText;
        else if (errno != EINTR)
            break;
    }
    return std::nullopt;
}

}  // namespace talvo
