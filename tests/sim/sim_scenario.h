// Whole simulations: clients and a server that use connections at random, and afterwards the account.
#pragma once

#include "talvo/testing/testing.h"

// A CCmSimScenario.
void RunScenario(CCmSimNetwork& aNetwork);
