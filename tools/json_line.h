// One JSON object on one line, for scripts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "tools/failure.h"

namespace tool {

// The first member of every object is its event: {"event":"sent","name":"a.txt","bytes":12}. docs/tool.md lists all events and
// fields: a field has the same name, type and unit in every command.
class JsonLine {
public:
    explicit JsonLine(std::string_view aEvent);

    // aText is UTF-8. Invalid bytes become U+FFFD.
    JsonLine& Add(std::string_view aKey, std::string_view aText);
    JsonLine& Add(std::string_view aKey, double aValue);
    JsonLine& Add(std::string_view aKey, const std::vector<std::string>& aTexts);
    JsonLine& Add(std::string_view aKey, const std::vector<std::pair<double, uint64_t>>& aPairs);  // an array of arrays
    template <class Integer, class = std::enable_if_t<std::is_integral_v<Integer>>>
    JsonLine& Add(std::string_view aKey, Integer aValue) {
        if constexpr (std::is_same_v<Integer, bool>)
            return AddRaw(aKey, aValue ? "true" : "false");
        else
            return AddRaw(aKey, std::to_string(aValue));
    }

    // A failure, to which the caller adds its subject: "name", "url" or "peer".
    static JsonLine Failed(const Failure& aFailure);

    std::string GetText() const { return m_strText + "}"; }

private:
    JsonLine& AddRaw(std::string_view aKey, std::string_view aJson);

    std::string m_strText;
};

}  // namespace tool
