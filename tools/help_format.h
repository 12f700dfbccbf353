// The layout of --help.
#pragma once

#include <memory>

namespace CLI {
class FormatterBase;
}

namespace tool {

// Names and values on the left, wrapped texts on the right. Arguments by their place are shown by their placeholders.
std::shared_ptr<CLI::FormatterBase> MakeHelpFormat();

}  // namespace tool
