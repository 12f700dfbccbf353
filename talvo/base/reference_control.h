// Shared ownership by reference count: the interface and the counting base. talvo/event/ has the variants that delete later,
// from a timer or an event of the owning thread.
#pragma once

#include "talvo/base/atomic_operation.h"
#include "talvo/base/export.h"
#include "talvo/base/types.h"

// Every interface that crosses a layer begins with these three functions. A new object has the count 0; its factory adds the
// first reference for the caller. Hold references in a CCmRefPtrT.
class TALVO_API ICmReferenceControl {
public:
    virtual CmDword AddReference() = 0;      // the new count
    virtual CmDword ReleaseReference() = 0;  // the new count; at 0 the object is deleted now or as soon as that is safe
    virtual ~ICmReferenceControl();
};

// The reference count. MutexType is CCmMutexNullSingleThread for objects of one thread, CCmMutexThread for objects of several.
template <class MutexType>
class CCmReferenceControlT {
public:
    // As ICmReferenceControl.
    CmDword AddReference() { return static_cast<CmDword>(++m_References); }

    // As ICmReferenceControl.
    CmDword ReleaseReference() {
        const int32_t lCount = --m_References;
        if (lCount == 0)
            OnReferenceDestory();
        return static_cast<CmDword>(lCount);
    }

    CmDword GetReference() const { return static_cast<CmDword>(m_References.GetValue()); }  // the current count

protected:
    CCmReferenceControlT() = default;
    virtual ~CCmReferenceControlT() = default;

    // Called once, when the count has returned to 0. Not inlined: in a class that has this as its second base, GCC 12 would
    // take the delete for one of a pointer into the middle of an object.
    [[gnu::noinline]] virtual void OnReferenceDestory() { delete this; }

private:
    CCmAtomicOperationT<MutexType> m_References;
};
