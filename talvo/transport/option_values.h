// Values of the options of connectors and acceptors, independent of the objects that use them.
#pragma once

#include <memory>
#include <span>
#include <vector>

#include "talvo/base/result.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// The type of an option's value, and the objects that have it. Values are copied and destroyed in any thread.
struct COptionType {
    // A kind and a base type of these must fit.
    enum : CmDword { CONNECTORS = 1, ACCEPTORS = 2, OVER_TCP = 4, OVER_UDP = 8, OVER_OTHERS = 16 };

    CmDword m_dwCommand;
    CmDword m_dwOf;
    CmBool (*m_IsValid)(const void* aValue);
    std::shared_ptr<void> (*m_Copy)(const void* aValue);  // may throw std::bad_alloc
    void (*m_Assign)(const void* aValue, void* aOut);     // of null: T(); may throw std::bad_alloc
};

template <class T>
CmBool IsAny(const T&) {
    return CM_TRUE;
}

// An option whose value is a T. Its value before the first Set is T().
template <class T, CmBool (*IsValid)(const T&) = IsAny<T>>
constexpr COptionType OptionOf(CmDword aCommand, CmDword aOf) {
    return {aCommand, aOf,                                                               //
            [](const void* aValue) { return IsValid(*static_cast<const T*>(aValue)); },  //
            [](const void* aValue) -> std::shared_ptr<void> { return std::make_shared<T>(*static_cast<const T*>(aValue)); },
            [](const void* aValue, void* aOut) { *static_cast<T*>(aOut) = aValue ? *static_cast<const T*>(aValue) : T(); }};
}

// All options that connectors and acceptors of the library have, one line each: talvo/connection/own_options.cc, above the
// rooms that have them.
std::span<const COptionType> GetOwnOptions();

// The values that a user has set. It needs a lock of its owner between threads.
class TALVO_API COptionValues {
public:
    // Of a connection type's connector or acceptor.
    COptionValues(CmDword aType, CmBool aConnector);

    // aArg points at the value, and is not null. Set copies it. CM_ERROR_INVALID_ARG: no such option of this object, or an
    // invalid value. CM_ERROR_OUT_OF_MEMORY: nothing changes.
    CmResult Set(CmDword aCommand, const void* aArg);
    CmResult Get(CmDword aCommand, void* aArg) const;
    // Likewise for a T; of an option that this object has. May throw std::bad_alloc.
    template <class T>
    T ValueOf(CmDword aCommand) const {
        const std::shared_ptr<void> pValue = ValueOf_i(aCommand);
        return pValue ? *static_cast<const T*>(pValue.get()) : T();
    }

    // The values that a connector of another type can have. May throw std::bad_alloc.
    COptionValues For(CmDword aType) const;

    // Sets on aId the values that differ from aPassed (in and out), which stores the values set. Ends at the first refusal and
    // returns it.
    CmResult PassTo(ICmAcceptorConnectorId* aId, COptionValues& aPassed) const;

private:
    struct CValue {
        CmDword m_dwCommand;
        std::shared_ptr<void> m_pValue;  // never changed; shared with copies of the store
    };

    const COptionType* Find_i(CmDword aCommand) const;
    std::shared_ptr<void> ValueOf_i(CmDword aCommand) const;
    void Put_i(const CValue& aValue);

    CmDword m_dwOf;
    std::vector<CValue> m_Values;
};

}  // namespace talvo
