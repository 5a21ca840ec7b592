// Result codes of the connection transport and the one place where errno and
// resolver failures become them. Families: 0x80C0 socket and name resolution,
// 0x80C1 SOCKS, 0x80C5 secure transport (engine code OR 0x80C50000).
#pragma once

#include <cstdint>
#include <iterator>

#include "base/result.h"

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

inline constexpr ResultTextEntry kTransportTexts[] = {
    {0x80C00001, "The socket library is not started."},
    {0x80C00002, "The socket call was interrupted or would block."},
    {0x80C00003, "Permission denied for the socket operation."},
    {0x80C00004, "Bad address."},
    {0x80C00005, "Invalid argument."},
    {0x80C00006, "Too many open sockets."},
    {0x80C00007, "A socket operation is already in progress."},
    {0x80C00008, "The handle is not a socket."},
    {0x80C00009, "A destination address is required."},
    {0x80C0000A, "The line or message is too long."},
    {0x80C0000B, "Wrong protocol type for the socket."},
    {0x80C0000C, "Bad protocol option."},
    {0x80C0000D, "The protocol or address family is not supported."},
    {0x80C0000E, "The address is already in use."},
    {0x80C0000F, "The address is not available."},
    {0x80C00010, "The network is down, unreachable or was reset."},
    {0x80C00011, "The connection was aborted."},
    {0x80C00012, "The connection was closed by the server."},
    {0x80C00013, "The connection was refused."},
    {0x80C00014, "The connection timed out."},
    {0x80C00015, "The socket is not connected."},
    {0x80C00016, "The host was not found."},
    {0x80C00017, "The host is down or unreachable."},
    {0x80C00018, "The socket is already connected."},
    {0x80C00019, "The host name has no address."},
    {0x80C0001A, "Temporary failure in name resolution."},
    {0x80C10001, "The SOCKS proxy reported a general failure or refused the request."},
    {0x80C10002, "The SOCKS proxy's rules do not allow the connection."},
    {0x80C10003, "The SOCKS proxy reports the network unreachable."},
    {0x80C10004, "The SOCKS proxy reports the host unreachable (or could not reach the identity server)."},
    {0x80C10005, "The SOCKS proxy reports the connection refused."},
    {0x80C10006, "The SOCKS proxy reports the time to live expired."},
    {0x80C10007, "The SOCKS proxy does not support the command."},
    {0x80C10008, "The SOCKS proxy does not support the address type."},
    {0x80C100FC, "The SOCKS proxy accepts none of the offered authentication methods."},
    {0x80C100FD, "The SOCKS proxy answered with a wrong version."},
    {0x80C100FE, "The SOCKS proxy refused the user name or password."},
    {0x80C100FF, "The SOCKS proxy refused the connection."},
    {0x80C50001, "The secure connection could not be set up (no TLS version or cipher suite enabled)."},
    {0x80C50002, "The server does not speak TLS."},
    {0x80C50003, "The server supports none of the enabled TLS versions."},
    {0x80C50004, "The server supports none of the enabled cipher suites."},
    {0x80C50005, "The server certificate was not accepted."},
    {0x80C50006, "The server ended the secure connection with an alert."},
    {0x80C50007, "The secure connection ended in the middle of a record."},
    {0x80C50008, "The secure connection failed with a protocol error."},
    {0x80C50009, "The server closed the connection during the secure handshake."},
    {0x80C5012A, "The secure connection could not be established or read."},
    {0x80C5012B, "The secure connection could not be written."},
};
// Codes without a text of their own; the protocol clients add the texts of
// their 0x80C2 (POP3), 0x80C3 (SMTP) and 0x80C4 (IMAP4) codes.
inline constexpr ResultFamilyEntry kTransportFamilies[] = {
    {0x80C0, "Socket error"},    {0x80C1, "SOCKS proxy error"}, {0x80C2, "POP3 error"},
    {0x80C3, "SMTP error"},      {0x80C4, "IMAP4 error"},       {0x80C5, "Secure connection error"},
};
inline constexpr ResultTextTable kTransportTextTable{kTransportTexts, std::size(kTransportTexts),
                                                      kTransportFamilies, std::size(kTransportFamilies)};
inline const bool kTransportTextsRegistered = RegisterResultTexts(kTransportTextTable);

// Maps an errno value of a socket call onto the 0x80C0 codes; values without
// a socket meaning give rc::kFail.
Result SocketErrorFromErrno(int err);

// Maps a getaddrinfo() result; EAI_SYSTEM takes the errno saved right after
// the call.
Result SocketErrorFromResolver(int gai_error, int saved_errno);

// A secure transport code: the engine's code OR-ed into 0x80C50000 as it is
// (not masked), or kTlsFailed when the engine recorded none. Send turns
// kTlsFailed into kTlsWriteFailed.
Result SecureTransportError(uint32_t engine_code);

}  // namespace trv
