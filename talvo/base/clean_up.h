// The process-wide list of singletons that are destroyed together.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/mutex.h"

// Base of process-wide singletons. The constructor puts the object at the head of the list, the destructor takes it out, so the
// youngest goes first and one that was destroyed by hand is not touched again. Any thread.
class TALVO_API CCmCleanUpBase {
public:
    CCmCleanUpBase(const CCmCleanUpBase&) = delete;
    CCmCleanUpBase& operator=(const CCmCleanUpBase&) = delete;

    // Calls CleanUp of every listed object, youngest first, until the list is empty. The thread manager, once made, has it run
    // at process exit unless threads are still about.
    static void CleanupAll();

    // The mutex that guards the list and the creation of singletons. Never destroyed.
    static CCmMutexThreadRecursive& GetSingletonMutex();

protected:
    CCmCleanUpBase();
    virtual ~CCmCleanUpBase();

    // Ends the object; deletes it unless overridden.
    virtual void CleanUp();

private:
    CCmCleanUpBase* m_pNext = nullptr;  // not owned
};
