// What a protocol connection knows of the connector or acceptor that made it.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"

class CConnBase;

namespace talvo {

// Holds a reference on each connection whose opening has not ended.
class TALVO_API CConnOwner {
public:
    // The opening of aConn has ended: CM_OK, or the reason why it failed. The owner lets go of aConn and tells its sink (an
    // acceptor of CM_OK only). Comes once; anything may be released inside.
    virtual void OnOpened(CConnBase& aConn, CmResult aReason) = 0;

protected:
    virtual ~CConnOwner() = default;
};

}  // namespace talvo
