// Percent decoding, and the fields of queries and forms.
#pragma once

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "talvo/co/result.h"

namespace talvo::http {

// The text with each "%41" decoded, and "+" as a space if plus_is_space. std::errc::invalid_argument: a "%" without two
// hexadecimal digits, or a NUL.
inline result<std::string> percent_decode(std::string_view text, bool plus_is_space = false) {
    const auto digit_of = [](char c) {
        if (c >= '0' && c <= '9')
            return c - '0';
        const char lower = static_cast<char>(c | 0x20);
        return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
    };
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        char c = text[at] == '+' && plus_is_space ? ' ' : text[at];
        if (c == '%') {
            const int high = text.size() - at > 2 ? digit_of(text[at + 1]) : -1;
            const int low = high < 0 ? -1 : digit_of(text[at + 2]);
            if (low < 0)
                return make_error_code(CM_ERROR_INVALID_ARG);
            c = static_cast<char>(high * 16 + low);
            at += 2;
        }
        if (c == '\0')
            return make_error_code(CM_ERROR_INVALID_ARG);
        decoded += c;
    }
    return decoded;
}

// Decoded names and values, in their order. A name may be there several times.
class fields {
public:
    static constexpr std::size_t MOST = 1000;  // fields of a text

    // Decodes "a=1&b=2", the form of queries and of application/x-www-form-urlencoded. std::errc::invalid_argument as above.
    // std::errc::message_size: more than MOST fields.
    static result<fields> parse(std::string_view text) {
        fields parsed;
        while (!text.empty()) {
            const std::string_view field = text.substr(0, text.find('&'));
            text.remove_prefix(std::min(text.size(), field.size() + 1));
            if (field.empty())
                continue;
            if (parsed.all_.size() == MOST)
                return std::error_code(EMSGSIZE, category());
            const std::size_t equals = std::min(field.find('='), field.size());
            auto name = percent_decode(field.substr(0, equals), true);
            auto value = percent_decode(field.substr(std::min(field.size(), equals + 1)), true);
            if (!name || !value)
                return make_error_code(CM_ERROR_INVALID_ARG);
            parsed.all_.emplace_back(std::move(*name), std::move(*value));
        }
        return parsed;
    }

    // There is a field of that name.
    bool has(std::string_view name) const noexcept { return find(name) != nullptr; }
    // The first value of that name; "": there is none.
    std::string_view get(std::string_view name) const noexcept {
        const auto* const found = find(name);
        return found ? std::string_view(found->second) : std::string_view();
    }
    // Appends a field.
    void add(std::string name, std::string value) { all_.emplace_back(std::move(name), std::move(value)); }

    auto begin() const noexcept { return all_.begin(); }       // a pair of name and value
    auto end() const noexcept { return all_.end(); }           // behind the last pair
    std::size_t size() const noexcept { return all_.size(); }  // the number of fields

private:
    const std::pair<std::string, std::string>* find(std::string_view name) const noexcept {
        for (const auto& each : all_) {
            if (each.first == name)
                return &each;
        }
        return nullptr;
    }

    std::vector<std::pair<std::string, std::string>> all_;
};

}  // namespace talvo::http
