// Result codes of the POP3 client (family 0x80C2) and their texts. A refused
// command gives the code of its command; the server's line is in the
// client's last_reply() for the log.
#pragma once

#include <iterator>

#include "base/result.h"

namespace trv {
namespace rc {
inline constexpr Result kPop3Greeting{0x80C20001};     // the greeting begins with "-"
inline constexpr Result kPop3Malformed{0x80C20002};    // status line neither "+" nor "-", or a bad answer or listing line
inline constexpr Result kPop3Login{0x80C20003};        // login refused, no usable method, or no APOP time stamp
inline constexpr Result kPop3Stat{0x80C20004};         // STAT refused
inline constexpr Result kPop3List{0x80C20005};         // LIST refused, or another number in the answer
inline constexpr Result kPop3Delete{0x80C20006};       // DELE refused
inline constexpr Result kPop3Refused{0x80C20007};      // NOOP, RSET or QUIT refused
inline constexpr Result kPop3Uidl{0x80C20008};         // UIDL n refused, or another number in the answer
inline constexpr Result kPop3UidlAll{0x80C20009};      // UIDL listing refused
inline constexpr Result kPop3Retrieve{0x80C2000A};     // RETR or TOP refused
inline constexpr Result kPop3Unsupported{0x80C2000C};  // CAPA, AUTH listing or STLS refused
}  // namespace rc

inline constexpr ResultTextEntry kPop3Texts[] = {
    {0x80C20001, "The POP3 server refused the connection."},
    {0x80C20002, "The POP3 server sent an answer that could not be understood."},
    {0x80C20003, "The POP3 server refused the login, or no usable login method is available."},
    {0x80C20004, "The POP3 server refused to give the mailbox status."},
    {0x80C20005, "The POP3 server refused to list the message, or listed another one."},
    {0x80C20006, "The POP3 server refused to delete the message."},
    {0x80C20007, "The POP3 server refused the command."},
    {0x80C20008, "The POP3 server refused to give the message's unique id, or gave another one's."},
    {0x80C20009, "The POP3 server refused to list the unique ids."},
    {0x80C2000A, "The POP3 server refused to send the message."},
    {0x80C2000C, "The POP3 server does not support the command."},
};
inline constexpr ResultTextTable kPop3TextTable{kPop3Texts, std::size(kPop3Texts)};
inline const bool kPop3TextsRegistered = RegisterResultTexts(kPop3TextTable);

}  // namespace trv
