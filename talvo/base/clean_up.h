// The process-wide list of singletons that are destroyed together.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/mutex.h"

// Base of process-wide singletons. The constructor adds the object at the head of the list, and the destructor removes it.
// CleanupAll therefore ends the youngest first and skips an object that was destroyed by hand. Any thread.
class TALVO_API CCmCleanUpBase {
public:
    CCmCleanUpBase(const CCmCleanUpBase&) = delete;
    CCmCleanUpBase& operator=(const CCmCleanUpBase&) = delete;

    // Calls CleanUp of every listed object, the youngest first, until the list is empty. The thread manager, once it exists,
    // runs this at process exit unless threads still run.
    static void CleanupAll();

    // Guards the list and the creation of singletons. Never destroyed.
    static CCmMutexThreadRecursive& GetSingletonMutex();

protected:
    CCmCleanUpBase();
    virtual ~CCmCleanUpBase();

    // Ends the object. The default deletes it.
    virtual void CleanUp();

private:
    CCmCleanUpBase* m_pNext = nullptr;  // not owned
};
