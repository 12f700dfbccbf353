// Named values that travel with an object: its metadata, or the parameters of a request.
#pragma once

#include <string_view>
#include <utility>
#include <vector>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

// Pairs of a name and a value in the order they were added. Both are bytes without a meaning to the list; names are compared
// exactly, may be empty, and may occur more than once. Bounded, since lists come from peers. Not shared between threads without
// a lock.
//
// As text a list is "name=value;name=value", with a backslash before each ';', '=' and '\' that belongs to a name or value; no
// pairs at all are the empty text. Every list survives Print and Parse.
class TALVO_API CCmParameterList {
public:
    using CPair = std::pair<CCmString, CCmString>;

    static constexpr size_t MAX_PAIRS = 1024;
    static constexpr size_t MAX_BYTES = 64 * 1024;  // names and values together

    // The operations that return a result give CM_ERROR_OUT_OF_MEMORY besides what they list, and nothing changes.

    // Set gives the name this one value: in the place of its first pair, removing others, or at the end. Append adds a pair at
    // the end, whether the name is there or not. CM_ERROR_NOT_AVAILABLE, and nothing changes: the list would pass its bounds.
    CmResult Set(std::string_view aName, std::string_view aValue);
    CmResult Append(std::string_view aName, std::string_view aValue);

    // The first value of the name. CM_ERROR_NOT_FOUND, and aValue is untouched.
    CmResult Get(std::string_view aName, CCmString& aValue) const;

    // Removes every pair of the name. CM_ERROR_NOT_FOUND: there is none.
    CmResult Remove(std::string_view aName);
    void Clear();

    size_t GetCount() const { return m_Pairs.size(); }
    std::vector<CPair>::const_iterator begin() const { return m_Pairs.begin(); }
    std::vector<CPair>::const_iterator end() const { return m_Pairs.end(); }

    CCmString Print() const;

    // Replaces the list. An '=' in a value may stand without its backslash. CM_ERROR_INVALID_ARG: a pair without '=' (also the
    // empty one behind a last ';'), or a backslash before anything else. CM_ERROR_NOT_AVAILABLE: beyond the bounds. Both leave
    // the list as it was.
    CmResult Parse(std::string_view aText);

private:
    CmResult Set_i(std::string_view aName, std::string_view aValue);
    CmResult Parse_i(std::string_view aText);

    std::vector<CPair> m_Pairs;
    size_t m_nBytes = 0;  // of all names and values
};
