#include "talvo/http/message/http_challenge.h"

#include <algorithm>

#include "talvo/http/message/http_text.h"

namespace talvo {

namespace {

// Commas separate both challenges and parameters: text before a "=" belongs to the current challenge, any other begins the
// next.
class CParser {
public:
    explicit CParser(std::string_view aText) : m_Text(aText) {}

    std::vector<CHttpChallenge> Parse() {
        while (SkipSeparators()) {
            const std::string_view name = ReadToken();
            if (name.empty() || !ReadItem(name))
                SkipItem();
        }
        return std::move(m_Challenges);
    }

private:
    char Peek() const { return m_Text.empty() ? '\0' : m_Text.front(); }

    BOOL SkipSeparators() {
        m_Text.remove_prefix(std::min(m_Text.find_first_not_of(" \t,\r\n"), m_Text.size()));
        return !m_Text.empty();
    }
    void SkipBlanks() { m_Text.remove_prefix(std::min(m_Text.find_first_not_of(" \t"), m_Text.size())); }
    void SkipItem() {
        const size_t nEnd = std::min(m_Text.find_first_of(",\n"), m_Text.size());
        m_Text.remove_prefix(nEnd);
    }

    std::string_view ReadToken() {
        size_t nLength = 0;
        while (nLength < m_Text.size() && is_token(m_Text.substr(nLength, 1)))
            ++nLength;
        const std::string_view token = m_Text.substr(0, nLength);
        m_Text.remove_prefix(nLength);
        return token;
    }

    BOOL IsItemOver() const { return m_Text.empty() || Peek() == ',' || Peek() == '\n' || Peek() == '\r'; }

    // Reads letters of base64 with their padding that fill the rest of the item (RFC 9110, section 11.2). FALSE: none are
    // there.
    BOOL ReadToken68() {
        static constexpr char LETTERS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~+/";
        const std::string_view before = m_Text;
        m_Text.remove_prefix(std::min(m_Text.find_first_not_of(LETTERS), m_Text.size()));
        const BOOL bLetters = m_Text.size() < before.size();
        m_Text.remove_prefix(std::min(m_Text.find_first_not_of('='), m_Text.size()));
        const size_t stLength = before.size() - m_Text.size();
        SkipBlanks();
        if (!bLetters || !IsItemOver()) {
            m_Text = before;
            return FALSE;
        }
        m_Challenges.back().m_strToken = before.substr(0, stLength);
        return TRUE;
    }

    // FALSE: the rest of the item is malformed.
    BOOL ReadItem(std::string_view aName) {
        SkipBlanks();
        if (Peek() == '=')
            return ReadParameter(aName);
        m_Challenges.push_back({to_lower(aName), {}, {}});
        if (IsItemOver() || ReadToken68())
            return TRUE;
        const std::string_view first = ReadToken();
        SkipBlanks();
        return !first.empty() && Peek() == '=' && ReadParameter(first);
    }

    BOOL ReadParameter(std::string_view aName) {
        m_Text.remove_prefix(1);
        SkipBlanks();
        const BOOL bQuoted = Peek() == '"';
        std::string_view value = bQuoted ? ReadQuoted() : ReadToken();
        if (m_Challenges.empty() || (value.empty() && !bQuoted))
            return FALSE;
        m_Challenges.back().m_Parameters.emplace_back(to_lower(aName), CCmString(value));
        return TRUE;
    }

    std::string_view ReadQuoted() {
        m_Text.remove_prefix(1);
        size_t nEnd = 0;
        while (nEnd < m_Text.size() && m_Text[nEnd] != '"')
            nEnd += m_Text[nEnd] == '\\' ? 2 : 1;
        nEnd = std::min(nEnd, m_Text.size());
        const std::string_view value = m_Text.substr(0, nEnd);
        m_Text.remove_prefix(std::min(nEnd + 1, m_Text.size()));
        return value;
    }

    std::string_view m_Text;
    std::vector<CHttpChallenge> m_Challenges;
};

}  // namespace

const CCmString* CHttpChallenge::Find(std::string_view aName) const {
    for (const auto& [strName, strValue] : m_Parameters) {
        if (strName == aName)
            return &strValue;
    }
    return nullptr;
}

std::vector<CHttpChallenge> ParseHttpChallenges(std::string_view aValue) { return CParser(aValue).Parse(); }

}  // namespace talvo
