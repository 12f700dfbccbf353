#include "talvo/http/message/http_date.h"

#include "tests/support/test.h"
