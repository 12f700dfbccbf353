// The connector or acceptor that made a protocol connection, as the connection uses it.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"

class CConnBase;

namespace talvo {

// Holds a reference on each connection whose opening has not ended.
class TALVO_API CConnOwner {
public:
    // The opening of aConn has ended: CM_OK, or the reason of the failure. The owner releases aConn and notifies its sink (an
    // acceptor of CM_OK only). Comes once; this call may release anything.
    virtual void OnOpened(CConnBase& aConn, CmResult aReason) = 0;

protected:
    virtual ~CConnOwner() = default;
};

}  // namespace talvo
