#include "tools/application.h"
#include "tools/arguments.h"
#include "tools/memory.h"

int main(int argc, char** argv) {
    tool::EndInWordsWithoutMemory();
    tool::Application::GuardStandardDescriptors();
    tool::Application::BlockSignals();
    tool::Arguments arguments;
    int nStatus = tool::EXIT_USAGE;
    return tool::ParseArguments(argc, argv, arguments, nStatus) ? arguments.m_pRun(arguments) : nStatus;
}
