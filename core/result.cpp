#include "core/result.h"

#include <cerrno>
#include <cstdio>

namespace trv {

Result ResultFromErrno(int err) {
  switch (err) {
    case 0: return rc::kOk;
    case ENOENT: return FromWin32(2);        // file not found
    case ENOTDIR: return FromWin32(3);       // path not found
    case EMFILE: case ENFILE: return FromWin32(4);
    case EACCES: case EPERM: return FromWin32(5);
    case EBADF: return FromWin32(6);
    case ENOMEM: return rc::kOutOfMemory;
    case EROFS: return FromWin32(19);        // write protected
    case EIO: return FromWin32(1117);        // I/O device error
    case EBUSY: case ETXTBSY: return FromWin32(32);  // sharing violation
    case EEXIST: return FromWin32(80);
    case EINVAL: return rc::kInvalidArg;
    case ENOSPC: case EDQUOT: return FromWin32(112);
    case EFBIG: return FromWin32(223);       // file too large
    case ENAMETOOLONG: return FromWin32(206);
    case EISDIR: return FromWin32(5);
    case ENOTEMPTY: return FromWin32(145);
    case EXDEV: return FromWin32(17);        // not same device
    case EAGAIN: return FromWin32(33);       // lock violation
    default: return FromWin32(1359);         // internal error
  }
}

namespace {

struct Entry {
  uint32_t code;
  const char* text;
};

constexpr Entry kTexts[] = {
    {0x00000000, "The operation completed successfully."},
    {0x00000002, "The system cannot find the file specified."},
    {0x00000008, "Not enough memory is available to complete this operation."},
    {0x0000000D, "The data is invalid."},
    {0x0000001D, "The system cannot write to the specified device."},
    {0x0000001E, "The system cannot read from the specified device."},
    {0x00000050, "The file exists."},
    {0x80004001, "The operation is not supported by this object."},
    {0x80004004, "Operation aborted."},
    {0x80004005, "Unspecified error."},
    {0x8007000E, "Not enough memory is available to complete this operation."},
    {0x80070057, "The parameter is incorrect."},
    {0x80070002, "The system cannot find the file specified."},
    {0x80070003, "The system cannot find the path specified."},
    {0x80070004, "The system cannot open the file: too many open files."},
    {0x80070005, "Access is denied."},
    {0x80070006, "The folder file is missing."},
    {0x8007000D, "The data is invalid."},
    {0x80070011, "The system cannot move the file to a different disk drive."},
    {0x80070013, "The media is write protected."},
    {0x80070020, "The file is being used by another process."},
    {0x80070021, "The file is locked by another process."},
    {0x80070050, "The file exists."},
    {0x80070070, "There is not enough space on the disk."},
    {0x80070091, "The directory is not empty."},
    {0x800700CE, "The file name or extension is too long."},
    {0x800700DF, "The file size exceeds the limit allowed and cannot be saved."},
    {0x800700EA, "More data is available."},
    {0x8007045D, "The request could not be performed because of an I/O device error."},
    {0x8007054F, "An internal error occurred."},
    // Container files.
    {0x80D00001, "The file is not a container file."},
    {0x80D00002, "The container file is damaged."},
    {0x80D00003, "The container file was written by a newer version."},
    {0x80D00004, "The container file is not open."},
    {0x80D00005, "The stream would grow past 4 GB."},
    {0x80D00006, "The stream was opened for reading only."},
    {0x80D00007, "The container file could not be accessed."},
    {0x80D00008, "Nothing could be saved from the damaged container file."},
    // MIME status values.
    {0xA0003000, "The message text has a syntax error."},
    {0xA0003003, "The text could not be converted between character sets."},
    // Socket and name resolution.
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
    // SOCKS.
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
    // Secure transport: engine codes, and failures without one.
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
    // SASL.
    {0x80E10001, "The authentication exchange received an unexpected challenge."},
    {0x80E10004, "The authentication mechanism is not available."},
};

}  // namespace

std::string ResultHex(Result r) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08X", r.code());
  return buf;
}

std::string ResultText(Result r) {
  for (const Entry& e : kTexts) {
    if (e.code == r.code()) return e.text;
  }
  switch (r.family()) {
    case 0x80C0: return "Socket error " + ResultHex(r) + ".";
    case 0x80C1: return "SOCKS proxy error " + ResultHex(r) + ".";
    case 0x80C2: return "POP3 error " + ResultHex(r) + ".";
    case 0x80C3: return "SMTP error " + ResultHex(r) + ".";
    case 0x80C4: return "IMAP4 error " + ResultHex(r) + ".";
    case 0x80C5: return "Secure connection error " + ResultHex(r) + ".";
    case 0x8007: return "System error " + std::to_string(r.code() & 0xFFFF) + ".";
    default: return "Unknown error " + ResultHex(r) + ".";
  }
}

}  // namespace trv
