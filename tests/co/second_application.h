// Starts an application in a shared object of its own, and returns its error.
#pragma once

#include <system_error>

[[gnu::visibility("default")]] std::error_code StartSecondApplication();
