#include "tools/json_line.h"

#include <nlohmann/json.hpp>

#include "tools/text.h"

namespace tool {

namespace {

template <class Value>
std::string ToJson(const Value& aValue) {
    return PrintableJson(nlohmann::json(aValue).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace

JsonLine::JsonLine(std::string_view aEvent) : m_strText("{\"event\":" + ToJson(aEvent)) {}

JsonLine& JsonLine::Add(std::string_view aKey, std::string_view aText) { return AddRaw(aKey, ToJson(aText)); }

JsonLine& JsonLine::Add(std::string_view aKey, double aValue) { return AddRaw(aKey, ToJson(aValue)); }

JsonLine& JsonLine::Add(std::string_view aKey, const std::vector<std::string>& aTexts) { return AddRaw(aKey, ToJson(aTexts)); }

JsonLine& JsonLine::Add(std::string_view aKey, const std::vector<std::pair<double, uint64_t>>& aPairs) {
    return AddRaw(aKey, ToJson(aPairs));
}

JsonLine JsonLine::Failed(const Failure& aFailure) {
    return JsonLine("failed").Add("cause", GetCauseName(aFailure.m_Cause)).Add("reason", aFailure.m_strReason);
}

JsonLine& JsonLine::AddRaw(std::string_view aKey, std::string_view aJson) {
    m_strText.append(",").append(ToJson(aKey)).append(":").append(aJson);
    return *this;
}

}  // namespace tool
