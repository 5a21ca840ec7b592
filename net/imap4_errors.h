// Result codes of the IMAP4 client (family 0x80C4) and their texts. The
// server's line of a refused command is in the client's lastReply() for the
// log.
//
// 0x80C40001 to 0x80C40004 are the protocol's own outcomes. The client adds
// three for input it will not take:
//  - 0x80C40005: a literal announced above the client's literal limit and not
//    taken by the literal hook, or a response whose held bytes would exceed
//    that limit. The literal is not read; the connection is closed, since the
//    stream is out of step.
//  - 0x80C40006: a tagged answer whose tag belongs to no outstanding command.
//    The connection is closed: the command's own answer can no longer be
//    told from the others.
//  - 0x80C40007: the connection ended, or was closed by the client, while a
//    command was still outstanding in a pipeline, so its answer never came.
// A response that cannot be parsed (unbalanced parentheses, NIL where a
// number or string is needed, a FETCH for message number 0) gives
// 0x80C40003 once the command's tagged answer has been read, so the
// connection stays in step.
#pragma once

#include <iterator>

#include "base/result.h"

namespace trv {
namespace rc {
inline constexpr Result kImap4No{0x80C40001};             // tagged NO; the line is in lastReply()
inline constexpr Result kImap4Bad{0x80C40002};            // tagged BAD, untagged BYE, LOGINDISABLED, APPEND without "+"
inline constexpr Result kImap4Malformed{0x80C40003};      // empty line, no blank, or a response that does not parse
inline constexpr Result kImap4NoStartTls{0x80C40004};     // STARTTLS not among the capabilities
inline constexpr Result kImap4LiteralTooLarge{0x80C40005};  // literal over the limit; connection closed
inline constexpr Result kImap4UnknownTag{0x80C40006};     // tagged answer to no outstanding command; connection closed
inline constexpr Result kImap4NoAnswer{0x80C40007};       // the tag was never answered (not outstanding, or the connection ended)
}  // namespace rc

inline constexpr ResultTextEntry kImap4Texts[] = {
    {0x80C40001, "The IMAP4 server refused the command."},
    {0x80C40002, "The IMAP4 server rejected the command or ended the session."},
    {0x80C40003, "The IMAP4 server sent a response that could not be understood."},
    {0x80C40004, "The IMAP4 server does not offer STARTTLS."},
    {0x80C40005, "The IMAP4 server announced more data than the client accepts."},
    {0x80C40006, "The IMAP4 server answered a command that was not sent."},
    {0x80C40007, "The IMAP4 server did not answer the command."},
};
inline constexpr ResultTextTable kImap4TextTable{kImap4Texts, std::size(kImap4Texts)};
inline const bool kImap4TextsRegistered = RegisterResultTexts(kImap4TextTable);

}  // namespace trv
