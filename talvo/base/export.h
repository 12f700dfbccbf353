// Marks what the shared library exports; everything else is hidden.
#pragma once

#define TALVO_API __attribute__((visibility("default")))
