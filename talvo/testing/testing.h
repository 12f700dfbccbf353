// Includes for a test over simulated links, in addition to talvo/talvo.h; link talvo::testing.
#pragma once

#include "talvo/testing/sim_network.h"
#include "talvo/testing/sim_seeds.h"
