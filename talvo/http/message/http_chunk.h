// Writes the chunked transfer coding.
#pragma once

#include <string_view>

#include "talvo/base/chain_ptr.h"
#include "talvo/base/export.h"

namespace talvo {

// The end of a chunked body without trailers.
constexpr std::string_view HTTP_LAST_CHUNK = "0\r\n\r\n";

// A new block with a copy of aText; null: memory ran out.
CCmChainPtr make_block(std::string_view aText);

// A new chain: the size line, duplicates of aPayload's blocks (which share its storage) and the line end. Null: the payload is
// empty, which would end the body, or memory ran out.
TALVO_API CCmChainPtr make_chunk(const CCmMessageBlock& aPayload);

}  // namespace talvo
