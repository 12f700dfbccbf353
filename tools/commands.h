// The subcommands. Each returns the program's exit status. Its arguments have been checked.
#pragma once

#include "tools/arguments.h"

namespace tool {

int RunRecv(const Arguments& aArguments);
int RunSend(const Arguments& aArguments);
int RunEcho(const Arguments& aArguments);
int RunPing(const Arguments& aArguments);
int RunGet(const Arguments& aArguments);
int RunResolve(const Arguments& aArguments);
int RunProxy(const Arguments& aArguments);
int RunServe(const Arguments& aArguments);
int RunTls(const Arguments& aArguments);
int RunFlaky(const Arguments& aArguments);
int RunPublish(const Arguments& aArguments);
int RunSubscribe(const Arguments& aArguments);
int RunBench(const Arguments& aArguments);

}  // namespace tool
