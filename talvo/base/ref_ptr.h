// The holder of reference-counted objects.
#pragma once

#include <cstddef>
#include <utility>

// Holds one reference on an object with AddReference and ReleaseReference, or null. A copy adds a reference, a move transfers
// it. Two threads must not change one holder at once, whatever the object is.
template <class Type>
class CCmRefPtrT {
public:
    CCmRefPtrT() = default;
    // Null, or a reference on the object.
    CCmRefPtrT(std::nullptr_t) {}
    CCmRefPtrT(Type* aObject) : m_pObject(aObject) {
        if (m_pObject)
            m_pObject->AddReference();
    }
    CCmRefPtrT(const CCmRefPtrT& aRight) : CCmRefPtrT(aRight.m_pObject) {}
    CCmRefPtrT(CCmRefPtrT&& aRight) noexcept : m_pObject(std::exchange(aRight.m_pObject, nullptr)) {}
    template <class Other>
    CCmRefPtrT(const CCmRefPtrT<Other>& aRight) : CCmRefPtrT(aRight.Get()) {}
    ~CCmRefPtrT() { Reset(); }

    // Releases the reference held before.
    CCmRefPtrT& operator=(CCmRefPtrT aRight) noexcept {
        std::swap(m_pObject, aRight.m_pObject);
        return *this;
    }

    // Takes over a reference that was added before, as from a factory.
    static CCmRefPtrT Adopt(Type* aObject) {
        CCmRefPtrT result;
        result.m_pObject = aObject;
        return result;
    }

    // Releases the reference. The holder is emptied first, because the release may delete the holder's owner.
    void Reset() {
        if (Type* pObject = std::exchange(m_pObject, nullptr))
            pObject->ReleaseReference();
    }

    // Transfers the reference to the caller, which releases it.
    Type* Detach() { return std::exchange(m_pObject, nullptr); }

    // For (out) parameters that return an object with a reference for the caller. Releases the old one.
    Type*& ParaOut() {
        Reset();
        return m_pObject;
    }

    // The object, or null.
    Type* Get() const { return m_pObject; }
    Type* operator->() const { return m_pObject; }
    Type& operator*() const { return *m_pObject; }
    explicit operator bool() const { return m_pObject != nullptr; }

private:
    Type* m_pObject = nullptr;
};

// Compare the objects' addresses.
template <class A, class B>
bool operator==(const CCmRefPtrT<A>& a, const CCmRefPtrT<B>& b) {
    return a.Get() == b.Get();
}
template <class A>
bool operator==(const CCmRefPtrT<A>& a, const A* b) {
    return a.Get() == b;
}
