// The one holder of reference-counted objects.
#pragma once

#include <cstddef>
#include <utility>

// Holds one reference on an object with AddReference and ReleaseReference, or nothing. Copying adds a reference, moving hands
// it on. Not itself safe to change from two threads at once, whatever the object is.
template <class Type>
class CCmRefPtrT {
public:
    CCmRefPtrT() = default;
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

    CCmRefPtrT& operator=(CCmRefPtrT aRight) noexcept {
        std::swap(m_pObject, aRight.m_pObject);
        return *this;
    }

    // Takes over a reference that somebody added already, as the factories hand them out.
    static CCmRefPtrT Adopt(Type* aObject) {
        CCmRefPtrT result;
        result.m_pObject = aObject;
        return result;
    }

    // Lets go. The holder is empty before the object hears of it, since that may delete the holder's owner.
    void Reset() {
        if (Type* pObject = std::exchange(m_pObject, nullptr))
            pObject->ReleaseReference();
    }

    // Gives the reference away: the caller releases it.
    Type* Detach() { return std::exchange(m_pObject, nullptr); }

    // For out-parameters that return an object with a reference for the caller. Lets go of what it held.
    Type*& ParaOut() {
        Reset();
        return m_pObject;
    }

    Type* Get() const { return m_pObject; }
    Type* operator->() const { return m_pObject; }
    Type& operator*() const { return *m_pObject; }
    explicit operator bool() const { return m_pObject != nullptr; }

private:
    Type* m_pObject = nullptr;
};

template <class A, class B>
bool operator==(const CCmRefPtrT<A>& a, const CCmRefPtrT<B>& b) {
    return a.Get() == b.Get();
}
template <class A>
bool operator==(const CCmRefPtrT<A>& a, const A* b) {
    return a.Get() == b;
}
