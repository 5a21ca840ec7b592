// Result codes of the connection transport and the one place where errno and
// resolver failures become them. Families: 0x80C0 socket and name resolution,
// 0x80C1 SOCKS, 0x80C5 secure transport (engine code OR 0x80C50000).
#pragma once

#include <cstdint>

#include "core/result.h"

namespace trv {
namespace rc {
// Socket and name resolution (0x80C0).
inline constexpr Result kSockNotStarted{0x80C00001};
inline constexpr Result kSockWouldBlock{0x80C00002};     // also an interrupted call
inline constexpr Result kSockAccess{0x80C00003};
inline constexpr Result kSockBadAddress{0x80C00004};     // also: not a dotted IPv4 literal
inline constexpr Result kSockInvalidArg{0x80C00005};     // also: a size of 0
inline constexpr Result kSockTooManyFiles{0x80C00006};
inline constexpr Result kSockInProgress{0x80C00007};
inline constexpr Result kSockNotSocket{0x80C00008};
inline constexpr Result kSockDestAddrRequired{0x80C00009};
inline constexpr Result kSockTooLong{0x80C0000A};        // also: the maximum line length
inline constexpr Result kSockProtocolType{0x80C0000B};
inline constexpr Result kSockProtocolOption{0x80C0000C};
inline constexpr Result kSockNotSupported{0x80C0000D};
inline constexpr Result kSockAddressInUse{0x80C0000E};
inline constexpr Result kSockAddressNotAvailable{0x80C0000F};
inline constexpr Result kSockNetworkDown{0x80C00010};    // down, unreachable or reset
inline constexpr Result kSockAborted{0x80C00011};
inline constexpr Result kSockClosed{0x80C00012};         // reset, or closed by the peer
inline constexpr Result kSockRefused{0x80C00013};
inline constexpr Result kSockTimedOut{0x80C00014};
inline constexpr Result kSockNotConnected{0x80C00015};
inline constexpr Result kSockHostNotFound{0x80C00016};
inline constexpr Result kSockHostUnreachable{0x80C00017};
inline constexpr Result kSockIsConnected{0x80C00018};
inline constexpr Result kSockNoAddress{0x80C00019};
inline constexpr Result kSockTryAgain{0x80C0001A};

// SOCKS (0x80C1). Reply codes 1 to 8 of a SOCKS 5 proxy are 0x80C10000 + code.
inline constexpr Result kSocksGeneralFailure{0x80C10001};  // also SOCKS 4 reply 91
inline constexpr Result kSocksHostUnreachable{0x80C10004}; // also SOCKS 4 reply 92
inline constexpr Result kSocksNoMethod{0x80C100FC};
inline constexpr Result kSocksBadVersion{0x80C100FD};
inline constexpr Result kSocksAuthRefused{0x80C100FE};     // also SOCKS 4 reply 93
inline constexpr Result kSocksRefused{0x80C100FF};

// Secure transport failures without an engine code (0x80C5).
inline constexpr Result kTlsFailed{0x80C5012A};            // handshake or read
inline constexpr Result kTlsWriteFailed{0x80C5012B};
}  // namespace rc

// Maps an errno value of a socket call onto the 0x80C0 codes; values without
// a socket meaning give rc::kFail.
Result SocketErrorFromErrno(int err);

// Maps a getaddrinfo() result; EAI_SYSTEM takes the errno saved right after
// the call.
Result SocketErrorFromResolver(int gai_error, int saved_errno);

// A secure transport code: the engine's code OR 0x80C50000, or kTlsFailed
// when the engine recorded none.
Result SecureTransportError(uint32_t engine_code);

}  // namespace trv
