// Marks a symbol that the shared library exports. All others are hidden.
#pragma once

#define TALVO_API __attribute__((visibility("default")))
