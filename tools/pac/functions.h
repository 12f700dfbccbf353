// The functions that scripts call.
#pragma once

struct duk_hthread;

namespace pac {

// Defines them as global functions. Arguments of a wrong number or type give false, null or "", never an error.
void AddFunctions(duk_hthread* aContext);

}  // namespace pac
