#include "tools/pac/functions.h"

#include <duktape.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <variant>

#include "tools/pac/addresses.h"
#include "tools/pac/clock.h"
#include "tools/pac/dates.h"
#include "tools/pac/match.h"
#include "tools/pac/names.h"
#include "tools/pac/wire.h"

namespace pac {

namespace {

constexpr size_t MAX_ALERT = 256;  // characters

struct Null {};
using Value = std::variant<std::monostate, Null, bool, double, std::string>;

// The arguments of a call.
class Arguments {
public:
    explicit Arguments(duk_context* aContext) : m_pContext(aContext) {}

    int GetCount() const { return duk_get_top(m_pContext); }
    bool IsText(int aIndex) const { return duk_is_string(m_pContext, aIndex); }
    // "" for other types.
    std::string GetText(int aIndex) const {
        duk_size_t size = 0;
        const char* pText = duk_get_lstring(m_pContext, aIndex, &size);
        return pText ? std::string(pText, size) : "";
    }
    RangeArgument GetRange(int aIndex) const;

private:
    duk_context* m_pContext;
};

// A number may be written as a text.
RangeArgument Arguments::GetRange(int aIndex) const {
    if (duk_is_number(m_pContext, aIndex))
        return {true, duk_get_number(m_pContext, aIndex), ""};
    RangeArgument argument{false, 0, GetText(aIndex)};
    char* pEnd = nullptr;
    argument.m_dNumber = std::strtod(argument.m_strText.c_str(), &pEnd);
    argument.m_bNumber = pEnd != argument.m_strText.c_str() && *pEnd == '\0';
    return argument;
}

Value NullIfEmpty(std::string aText) { return aText.empty() ? Value(Null()) : Value(std::move(aText)); }

std::string Resolve(const std::string& aHost) {
    if (const auto address = ParseAddress(aHost))
        return address->m_bIpv4 ? aHost : "";
    return ResolveIpv4(aHost);
}

std::string ResolveBoth(const std::string& aHost) { return ParseAddress(aHost) ? aHost : ResolveAll(aHost); }

Value IsPlainHostName(const Arguments& a) {
    return a.IsText(0) && a.GetText(0).find('.') == std::string::npos && !ParseAddress(a.GetText(0));
}

Value DnsDomainIs(const Arguments& a) { return a.IsText(0) && a.IsText(1) && a.GetText(0).ends_with(a.GetText(1)); }

Value LocalHostOrDomainIs(const Arguments& a) {
    const std::string strHost = a.GetText(0), strDomain = a.GetText(1);
    return a.IsText(0) && a.IsText(1) && (strHost == strDomain || strDomain.starts_with(strHost + '.'));
}

Value IsResolvable(const Arguments& a) { return !Resolve(a.GetText(0)).empty(); }

Value IsInNet(const Arguments& a) {
    const auto network = ParseIpv4(a.GetText(1)), mask = ParseIpv4(a.GetText(2));
    if (!network || !mask)
        return false;
    const auto address = ParseIpv4(Resolve(a.GetText(0)));
    return address && (*address & *mask) == (*network & *mask);
}

Value DnsResolve(const Arguments& a) { return NullIfEmpty(Resolve(a.GetText(0))); }

Value ConvertAddress(const Arguments& a) {
    const auto address = ParseIpv4(a.GetText(0));
    return address ? Value(static_cast<double>(static_cast<int>(*address))) : Value(Null());
}

Value MyIpAddress(const Arguments&) { return GetMyIpv4(); }

Value DnsDomainLevels(const Arguments& a) {
    const std::string strHost = a.GetText(0);
    return static_cast<double>(std::count(strHost.begin(), strHost.end(), '.'));
}

template <bool (*Check)(const RangeArguments&, const tm&)>
Value IsInRange(const Arguments& a) {
    RangeArguments arguments;
    for (int i = 0; i < std::min(a.GetCount(), 8); ++i)
        arguments.push_back(a.GetRange(i));
    const bool bUtc = !arguments.empty() && arguments.back().m_strText == "GMT";
    if (bUtc)
        arguments.pop_back();
    return Check(arguments, GetTime(bUtc));
}

Value IsResolvableEx(const Arguments& a) { return !ResolveBoth(a.GetText(0)).empty(); }
Value DnsResolveEx(const Arguments& a) { return ResolveBoth(a.GetText(0)); }
Value MyIpAddressEx(const Arguments&) { return GetMyAddresses(); }
Value IsInNetEx(const Arguments& a) { return IsInPrefix(a.GetText(0), a.GetText(1)); }

Value SortIpAddressList(const Arguments& a) {
    auto sorted = SortAddresses(a.GetText(0));
    return sorted ? Value(std::move(*sorted)) : Value(false);
}

Value GetClientVersion(const Arguments&) { return std::string("1.0"); }

struct Function {
    const char* m_szName;
    Value (*m_Call)(const Arguments&);
};

constexpr Function FUNCTIONS[] = {
    {"isPlainHostName", &IsPlainHostName},
    {"dnsDomainIs", &DnsDomainIs},
    {"localHostOrDomainIs", &LocalHostOrDomainIs},
    {"isResolvable", &IsResolvable},
    {"isInNet", &IsInNet},
    {"dnsResolve", &DnsResolve},
    {"convert_addr", &ConvertAddress},
    {"myIpAddress", &MyIpAddress},
    {"dnsDomainLevels", &DnsDomainLevels},
    {"weekdayRange", &IsInRange<IsInWeekdays>},
    {"dateRange", &IsInRange<IsInDates>},
    {"timeRange", &IsInRange<IsInTimes>},
    {"isResolvableEx", &IsResolvableEx},
    {"dnsResolveEx", &DnsResolveEx},
    {"myIpAddressEx", &MyIpAddressEx},
    {"isInNetEx", &IsInNetEx},
    {"sortIpAddressList", &SortIpAddressList},
    {"getClientVersion", &GetClientVersion},
};

// The engine's errors jump over C++ frames. What a push needs therefore stands here, where no jump leaks it.
Value s_Result;

duk_ret_t CallFunction(duk_context* aContext) {
    s_Result = FUNCTIONS[duk_get_current_magic(aContext)].m_Call(Arguments(aContext));
    if (const auto* pText = std::get_if<std::string>(&s_Result))
        duk_push_lstring(aContext, pText->data(), pText->size());
    else if (const auto* pNumber = std::get_if<double>(&s_Result))
        duk_push_number(aContext, *pNumber);
    else if (const auto* pBoolean = std::get_if<bool>(&s_Result))
        duk_push_boolean(aContext, *pBoolean);
    else
        duk_push_null(aContext);
    return 1;
}

std::string ExpressionOf(const std::string& aPattern) {
    std::string strExpression = "^";
    for (const char c : aPattern) {
        if (c == '*' || c == '?')
            strExpression += c == '*' ? ".*" : ".";
        else
            strExpression += c == '.' ? std::string("\\.") : std::string(1, c);
    }
    return strExpression + '$';
}

std::optional<bool> MatchPlain(const Arguments& a) {
    if (!a.IsText(0) || !a.IsText(1))
        return false;
    const std::string strPattern = a.GetText(1);
    return IsPlainShell(strPattern) ? std::optional(MatchShell(a.GetText(0), strPattern)) : std::nullopt;
}

// As in browsers a pattern with other signs than "*" and "?" is a regular expression.
duk_ret_t ShExpMatch(duk_context* aContext) {
    if (const auto matches = MatchPlain(Arguments(aContext))) {
        duk_push_boolean(aContext, *matches);
        return 1;
    }
    static std::string s_strExpression;
    s_strExpression = ExpressionOf(Arguments(aContext).GetText(1));
    duk_get_global_string(aContext, "RegExp");
    duk_push_lstring(aContext, s_strExpression.data(), s_strExpression.size());
    bool bMatches = false;
    if (duk_pnew(aContext, 1) == DUK_EXEC_SUCCESS) {
        duk_push_string(aContext, "test");
        duk_dup(aContext, 0);
        bMatches = duk_pcall_prop(aContext, -3, 1) == DUK_EXEC_SUCCESS && duk_to_boolean(aContext, -1);
    }
    duk_push_boolean(aContext, bMatches);
    return 1;
}

// Cuts a text in UTF-8 behind MAX_ALERT characters.
std::string Cut(const char* aText, size_t aSize) {
    size_t end = 0;
    for (size_t characters = 0; end < aSize; ++end) {
        const bool bStarts = (static_cast<unsigned char>(aText[end]) & 0xC0) != 0x80;
        if ((bStarts && ++characters > MAX_ALERT) || end == 4 * MAX_ALERT)
            break;
    }
    return std::string(aText, end);
}

duk_ret_t Alert(duk_context* aContext) {
    duk_size_t size = 0;
    const char* pText = duk_get_top(aContext) > 0 ? duk_safe_to_lstring(aContext, 0, &size) : "";
    WriteFrame('a', Cut(pText, size));
    return 0;
}

void AddFunction(duk_context* aContext, const char* aName, duk_c_function aFunction, int aMagic) {
    duk_push_c_function(aContext, aFunction, DUK_VARARGS);
    duk_set_magic(aContext, -1, aMagic);
    duk_put_global_string(aContext, aName);
}

}  // namespace

void AddFunctions(duk_hthread* aContext) {
    for (size_t i = 0; i < std::size(FUNCTIONS); ++i)
        AddFunction(aContext, FUNCTIONS[i].m_szName, &CallFunction, static_cast<int>(i));
    AddFunction(aContext, "shExpMatch", &ShExpMatch, 0);
    AddFunction(aContext, "alert", &Alert, 0);
}

}  // namespace pac
