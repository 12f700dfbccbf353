// The lines that the configuration could not make sense of. Inner part of configuration and trace.
#pragma once

namespace talvo {

// Traces those that nobody has heard of yet, or keeps them until warnings are on: the trace is often switched on by the very
// file that they stand in. Any thread, without the configuration's lock held.
void TraceConfigComplaints();

}  // namespace talvo
