// Coroutines: the layer of C++20 above talvo/talvo.h, for programs that include it. docs/coroutines.md is its manual.
#pragma once

#ifdef TALVO_CALLBACKS_H
#error "A source file includes talvo/co.h or talvo/callbacks.h, not both."
#endif
#define TALVO_CO_H

#include "talvo/co/application.h"
#include "talvo/co/combine.h"
#include "talvo/co/connect.h"
#include "talvo/co/http_server.h"
#include "talvo/co/listener.h"
#include "talvo/co/on.h"
#include "talvo/co/resolve.h"
#include "talvo/co/sleep.h"
#include "talvo/co/task_group.h"
#include "talvo/co/worker_pool.h"
