// Whole simulations: clients and a server that use connections at random, and afterwards the account.
#pragma once

#include "talvo/testing/testing.h"

// A CCmSimScenario.
void RunScenario(CCmSimNetwork& aNetwork);
// The same for reliable connections, over networks that break.
void RunReliableScenario(CCmSimNetwork& aNetwork);
// A session that forwards to receivers of every kind.
void RunForwardScenario(CCmSimNetwork& aNetwork);
