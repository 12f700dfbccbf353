// The certificate of a server for the name that a client asks for.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace talvo {

inline std::string LowerCase(std::string_view aName) {
    std::string strName(aName);
    for (char& c : strName) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return strName;
}

// Maps names to values; "*" stands for one label at the beginning of a name. Case does not matter.
template <class Value>
class CServerNamesT {
public:
    // aName: in lower case. The first value of a name stays.
    void Add(const std::string& aName, Value aValue) { m_Values.emplace(aName, aValue); }

    // The value of the exact name, or else of the one with "*"; null: none.
    const Value* Find(std::string_view aName) const {
        const std::string strName = LowerCase(aName);
        auto it = m_Values.find(strName);
        const size_t stDot = strName.find('.');
        if (it == m_Values.end() && stDot != 0 && stDot != std::string::npos)
            it = m_Values.find("*" + strName.substr(stDot));
        return it == m_Values.end() ? nullptr : &it->second;
    }

private:
    std::map<std::string, Value> m_Values;
};

}  // namespace talvo
