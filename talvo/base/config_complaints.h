// Warnings about the configuration: a refused file, malformed lines. Internal to configuration and trace.
#pragma once

namespace talvo {

// Traces each warning once, or keeps them until warnings are on: often the file with the malformed lines is also the one that
// enables the trace. Any thread, without the configuration's lock.
void TraceConfigComplaints();

}  // namespace talvo
