// Named values that travel with an object: its metadata, or the parameters of a request.
#pragma once

#include <string_view>
#include <utility>
#include <vector>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// Pairs of a name and a value, in the order of insertion. Both are bytes without a meaning to the list. Names are compared
// exactly, may be empty, and may occur more than once. The list has limits, because peers send lists. Do not share it between
// threads without a lock.
//
// As text a list is "name=value;name=value", with a backslash before each ';', '=' and '\' of a name or value. The text of an
// empty list is empty. Print and Parse preserve every list.
class TALVO_API CCmParameterList {
public:
    using CPair = std::pair<CCmString, CCmString>;  // name and value

    // The limits of a list.
    static constexpr size_t MAX_PAIRS = 1024;
    static constexpr size_t MAX_BYTES = 64 * 1024;  // names and values together

    // Every operation with a result may also return CM_ERROR_OUT_OF_MEMORY; nothing changes then.

    // Set gives the name this one value: it replaces the name's first pair and removes the others, or adds a pair at the end.
    // Append always adds a pair at the end. CM_ERROR_NOT_AVAILABLE: the list would exceed its limits, and nothing changes.
    CmResult Set(std::string_view aName, std::string_view aValue);
    CmResult Append(std::string_view aName, std::string_view aValue);

    // aValue (out): the first value of the name. CM_ERROR_NOT_FOUND, and aValue is unchanged.
    CmResult Get(std::string_view aName, CCmString& aValue) const;

    // Removes every pair of the name. CM_ERROR_NOT_FOUND: there is none.
    CmResult Remove(std::string_view aName);
    void Clear();  // removes all pairs

    // The pairs, in the order of insertion.
    size_t GetCount() const { return m_Pairs.size(); }
    std::vector<CPair>::const_iterator begin() const { return m_Pairs.begin(); }
    std::vector<CPair>::const_iterator end() const { return m_Pairs.end(); }

    CCmString Print() const;  // the list as text, see above

    // Replaces the list. An '=' in a value needs no backslash. CM_ERROR_INVALID_ARG: a pair has no '=' (this includes the empty
    // pair behind a last ';'), or a backslash precedes any other character. CM_ERROR_NOT_AVAILABLE: beyond the limits. After
    // both the list is unchanged.
    CmResult Parse(std::string_view aText);

private:
    CmResult Set_i(std::string_view aName, std::string_view aValue);
    CmResult Parse_i(std::string_view aText);

    std::vector<CPair> m_Pairs;
    size_t m_nBytes = 0;  // of all names and values
};
