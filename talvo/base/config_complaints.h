// What the configuration did not take: a refused file, malformed lines. Inner part of configuration and trace.
#pragma once

namespace talvo {

// Traces each once, or keeps them until warnings are on: the trace is often switched on by the very file that has the malformed
// lines. Any thread, without the configuration's lock held.
void TraceConfigComplaints();

}  // namespace talvo
