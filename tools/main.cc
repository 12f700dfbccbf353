#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/console.h"
#include "tools/memory.h"

int main(int argc, char** argv) {
    tool::EndInWordsWithoutMemory();
    tool::Application::GuardStandardDescriptors();
    tool::Application::BlockSignals();
    tool::Arguments arguments;
    int nStatus = tool::EXIT_USAGE;
    if (tool::ParseArguments(argc, argv, arguments, nStatus))
        nStatus = arguments.m_pRun(arguments);
    if (nStatus != tool::EXIT_OK || !tool::Console::IsLost())
        return nStatus;
    const int nSignal = tool::Application::GetPendingSignal();
    return nSignal == 0 ? tool::EXIT_FAILED : 128 + nSignal;
}
