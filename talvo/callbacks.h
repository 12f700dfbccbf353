// Callbacks: the layer of C++20 above talvo/talvo.h for programs without coroutines. docs/callbacks.md is its manual. Its names
// are those of talvo/co.h; a source file includes one of the two.
#pragma once

#ifdef TALVO_CO_H
#error "A source file includes talvo/co.h or talvo/callbacks.h, not both."
#endif
#define TALVO_CALLBACKS_H

#include "talvo/callbacks/application.h"
#include "talvo/callbacks/timer.h"
