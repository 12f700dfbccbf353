// Includes for tests, in addition to talvo/talvo.h; link talvo::testing. talvo/testing/faults.h is apart, because
// it needs a library of its own.
#pragma once

#include "talvo/testing/channel_log.h"
#include "talvo/testing/fake_clock.h"
#include "talvo/testing/scripted_http.h"
#include "talvo/testing/scripted_transport.h"
#include "talvo/testing/sim_forward_model.h"
#include "talvo/testing/sim_intruder.h"
#include "talvo/testing/sim_network.h"
#include "talvo/testing/sim_pair.h"
#include "talvo/testing/sim_peer.h"
#include "talvo/testing/sim_reliable_peer.h"
#include "talvo/testing/sim_seeds.h"
#include "talvo/testing/sim_wild_peer.h"
#include "talvo/testing/sim_wild_sides.h"
#include "talvo/testing/trace_capture.h"
#include "talvo/testing/upcall_log.h"
