#include "net/socket_errors.h"

#include <netdb.h>

#include <cerrno>

namespace trv {

Result SocketErrorFromErrno(int err) {
  switch (err) {
    case 0: return rc::kOk;
    case EINTR:
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
      return rc::kSockWouldBlock;
    case EACCES:
    case EPERM: return rc::kSockAccess;
    case EFAULT: return rc::kSockBadAddress;
    case EINVAL: return rc::kSockInvalidArg;
    case EMFILE:
    case ENFILE: return rc::kSockTooManyFiles;
    case EINPROGRESS:
    case EALREADY: return rc::kSockInProgress;
    case ENOTSOCK:
    case EBADF: return rc::kSockNotSocket;
    case EDESTADDRREQ: return rc::kSockDestAddrRequired;
    case EMSGSIZE: return rc::kSockTooLong;
    case EPROTOTYPE: return rc::kSockProtocolType;
    case ENOPROTOOPT: return rc::kSockProtocolOption;
    case EPROTONOSUPPORT:
    case ESOCKTNOSUPPORT:
    case EOPNOTSUPP:
    case EPFNOSUPPORT:
    case EAFNOSUPPORT: return rc::kSockNotSupported;
    case EADDRINUSE: return rc::kSockAddressInUse;
    case EADDRNOTAVAIL: return rc::kSockAddressNotAvailable;
    case ENETDOWN:
    case ENETUNREACH:
    case ENETRESET: return rc::kSockNetworkDown;
    case ECONNABORTED: return rc::kSockAborted;
    case ECONNRESET:
    case EPIPE: return rc::kSockClosed;  // writing after the peer went away
    case EISCONN: return rc::kSockIsConnected;
    case ENOTCONN:
    case ESHUTDOWN: return rc::kSockNotConnected;
    case ETIMEDOUT: return rc::kSockTimedOut;
    case ECONNREFUSED: return rc::kSockRefused;
    case EHOSTDOWN:
    case EHOSTUNREACH: return rc::kSockHostUnreachable;
    default: return rc::kFail;
  }
}

Result SocketErrorFromResolver(int gai_error, int saved_errno) {
  switch (gai_error) {
    case 0: return rc::kOk;
    case EAI_NONAME: return rc::kSockHostNotFound;
    case EAI_AGAIN: return rc::kSockTryAgain;
#ifdef EAI_NODATA
    case EAI_NODATA: return rc::kSockNoAddress;
#endif
#ifdef EAI_ADDRFAMILY
    case EAI_ADDRFAMILY: return rc::kSockNoAddress;
#endif
    case EAI_FAMILY:
    case EAI_SOCKTYPE:
    case EAI_SERVICE: return rc::kSockNotSupported;
    case EAI_BADFLAGS: return rc::kSockInvalidArg;
    case EAI_SYSTEM: return SocketErrorFromErrno(saved_errno);
    default: return rc::kFail;  // EAI_FAIL, EAI_MEMORY and anything newer
  }
}

Result SecureTransportError(uint32_t engine_code) {
  if (engine_code == 0) return rc::kTlsFailed;
  return Result(0x80C50000u | engine_code);
}

}  // namespace trv
