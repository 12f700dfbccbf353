// The count that a read or write of a socket returns if it would block: CCmTransportTcp's Recv_i and Send_i, and the like.
#pragma once

namespace talvo {

inline constexpr int WOULD_BLOCK = -2;

}  // namespace talvo
