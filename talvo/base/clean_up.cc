#include "talvo/base/clean_up.h"

#include "talvo/base/immortal.h"

namespace {

CCmCleanUpBase* s_pHead = nullptr;  // guarded by the singleton mutex; the list does not own its objects

using SingletonGuard = CCmMutexGuardT<CCmMutexThreadRecursive>;

}  // namespace

CCmMutexThreadRecursive& CCmCleanUpBase::GetSingletonMutex() {
    static talvo::CImmortalT<CCmMutexThreadRecursive> s_Mutex;
    return *s_Mutex;
}

CCmCleanUpBase::CCmCleanUpBase() {
    SingletonGuard guard(GetSingletonMutex());
    m_pNext = s_pHead;
    s_pHead = this;
}

CCmCleanUpBase::~CCmCleanUpBase() {
    SingletonGuard guard(GetSingletonMutex());
    for (CCmCleanUpBase** ppLink = &s_pHead; *ppLink; ppLink = &(*ppLink)->m_pNext) {
        if (*ppLink == this) {
            *ppLink = m_pNext;
            return;
        }
    }
}

void CCmCleanUpBase::CleanUp() { delete this; }

void CCmCleanUpBase::CleanupAll() {
    SingletonGuard guard(GetSingletonMutex());
    while (CCmCleanUpBase* pObject = s_pHead) {
        s_pHead = pObject->m_pNext;
        pObject->CleanUp();
    }
}
