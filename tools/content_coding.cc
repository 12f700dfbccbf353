#include "tools/content_coding.h"

#include <strings.h>

#include <algorithm>
#include <charconv>

#include "talvo/talvo.h"

namespace tool {

namespace {

std::string_view Trim(std::string_view aText) {
    const size_t stFirst = std::min(aText.find_first_not_of(" \t"), aText.size());
    return aText.substr(stFirst, aText.find_last_not_of(" \t") + 1 - stFirst);
}

bool IsSame(std::string_view aText, std::string_view aWord) {
    return aText.size() == aWord.size() && strncasecmp(aText.data(), aWord.data(), aWord.size()) == 0;
}

// The weight behind the first ';', 1 without one. A malformed weight is 0.
double GetWeight(std::string_view aElement) {
    const size_t stSemicolon = aElement.find(';');
    if (stSemicolon == std::string_view::npos)
        return 1;
    const std::string_view parameter = Trim(aElement.substr(stSemicolon + 1));
    double dWeight = 0;
    if (parameter.size() < 3 || !IsSame(parameter.substr(0, 2), "q="))
        return 0;
    const char* pEnd = parameter.data() + parameter.size();
    const auto [pRead, error] = std::from_chars(parameter.data() + 2, pEnd, dWeight, std::chars_format::fixed);
    return error == std::errc() && pRead == pEnd && dWeight >= 0 && dWeight <= 1 ? dWeight : 0;
}

}  // namespace

bool AcceptsGzip(std::string_view aAcceptEncoding) {
    double dGzip = -1;  // -1: not listed
    double dPlain = -1;
    double dOthers = 0;
    for (std::string_view element; cm_next_list_element(aAcceptEncoding, element);) {
        const std::string_view coding = Trim(element.substr(0, element.find(';')));
        if (IsSame(coding, "gzip") || IsSame(coding, "x-gzip"))
            dGzip = GetWeight(element);
        else if (IsSame(coding, "identity"))
            dPlain = GetWeight(element);
        else if (coding == "*")
            dOthers = GetWeight(element);
    }
    const double dWeight = dGzip < 0 ? dOthers : dGzip;
    return dWeight > 0 && dWeight >= dPlain;
}

}  // namespace tool
