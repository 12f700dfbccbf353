#include "talvo/event/embedded_loop.h"

#include "talvo/event/reactor.h"

ICmEmbeddedLoop::~ICmEmbeddedLoop() = default;

ICmEmbeddedLoop* cm_get_embedded_loop(ICmReactor* aReactor) { return dynamic_cast<ICmEmbeddedLoop*>(aReactor); }
