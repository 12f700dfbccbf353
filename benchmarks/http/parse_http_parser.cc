// Heads and chunked bodies on http_parser, with typical callbacks of an application: names, values and the parts of the first
// line go into strings that are kept from message to message. It checks less than the others: names stay texts.
#include <http_parser.h>

#include "benchmarks/http/parse.h"

namespace {

class CParser {
public:
    CParser() {
        http_parser_settings_init(&m_Settings);
        m_Settings.on_url = [](http_parser* aParser, const char* aAt, size_t aLength) {
            return Of(aParser).Add(Of(aParser).m_strFirst, aAt, aLength);
        };
        m_Settings.on_status = m_Settings.on_url;
        m_Settings.on_header_field = [](http_parser* aParser, const char* aAt, size_t aLength) {
            return Of(aParser).AddName(aAt, aLength);
        };
        m_Settings.on_header_value = [](http_parser* aParser, const char* aAt, size_t aLength) {
            return Of(aParser).AddValue(aAt, aLength);
        };
        m_Settings.on_headers_complete = [](http_parser* aParser) {
            Of(aParser).m_bHeadComplete = true;
            return 0;
        };
        m_Settings.on_body = [](http_parser* aParser, const char* aAt, size_t aLength) {
            return Of(aParser).Add(Of(aParser).m_strBody, aAt, aLength);
        };
        m_Settings.on_message_complete = [](http_parser* aParser) {
            Of(aParser).m_bComplete = true;
            return 0;
        };
    }

    size_t Request(std::string_view aMessage) { return Parse(HTTP_REQUEST, aMessage); }
    size_t Response(std::string_view aMessage) { return Parse(HTTP_RESPONSE, aMessage); }

    size_t Chunked(const std::vector<std::string_view>& aPieces) {
        Parse(HTTP_RESPONSE, bench::CHUNKED_RESPONSE);
        for (const std::string_view strPiece : aPieces)
            http_parser_execute(&m_Parser, &m_Settings, strPiece.data(), strPiece.size());
        return m_bComplete ? m_strBody.size() : 0;
    }

private:
    struct CField {
        std::string m_strName, m_strValue;
    };

    static CParser& Of(http_parser* aParser) { return *static_cast<CParser*>(aParser->data); }

    static int Add(std::string& aText, const char* aAt, size_t aLength) {
        aText.append(aAt, aLength);
        return 0;
    }
    // A name or value may come in pieces. A name after a value begins the next field.
    int AddName(const char* aAt, size_t aLength) {
        if (m_bInValue) {
            if (++m_stCount > m_Fields.size())
                m_Fields.emplace_back();
            m_Fields[m_stCount - 1].m_strName.clear();
            m_Fields[m_stCount - 1].m_strValue.clear();
            m_bInValue = false;
        }
        return Add(m_Fields[m_stCount - 1].m_strName, aAt, aLength);
    }
    int AddValue(const char* aAt, size_t aLength) {
        m_bInValue = true;
        return Add(m_Fields[m_stCount - 1].m_strValue, aAt, aLength);
    }

    size_t Parse(http_parser_type aType, std::string_view aMessage) {
        http_parser_init(&m_Parser, aType);
        m_Parser.data = this;
        m_strFirst.clear();
        m_strBody.clear();
        m_stCount = 0;
        m_bInValue = true;
        m_bHeadComplete = m_bComplete = false;
        http_parser_execute(&m_Parser, &m_Settings, aMessage.data(), aMessage.size());
        return m_bHeadComplete ? m_stCount : 0;
    }

    http_parser m_Parser;
    http_parser_settings m_Settings;
    std::string m_strFirst, m_strBody;
    std::vector<CField> m_Fields;
    size_t m_stCount = 0;
    bool m_bInValue = true, m_bHeadComplete = false, m_bComplete = false;
};

}  // namespace

int main() { return bench::RunParse<CParser>(); }
