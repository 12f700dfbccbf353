// An application in a shared object with hidden symbols.
#include "tests/co/second_application.h"

#include "talvo/co.h"

std::error_code StartSecondApplication() { return talvo::application().error(); }
