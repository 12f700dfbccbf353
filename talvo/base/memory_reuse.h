// Whether memory that is given back is kept to be used again.
#pragma once

namespace talvo {

// Not under a sanitizer that looks for its use too late, which reuse would hide.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool REUSES_MEMORY = false;
#elif defined(__has_feature)
constexpr bool REUSES_MEMORY = !__has_feature(address_sanitizer);
#else
constexpr bool REUSES_MEMORY = true;
#endif

}  // namespace talvo
