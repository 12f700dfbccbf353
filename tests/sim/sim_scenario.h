// Whole simulations: clients and a server that do what they like, and afterwards the account.
#pragma once

#include "tests/sim/sim_user.h"

extern const CSimKind SIM_KINDS[7];
inline const CSimKind& SIM_PACKAGE_KEEPALIVE = SIM_KINDS[2];

// A CCmSimScenario.
void RunScenario(CCmSimNetwork& aNetwork);
