// CImap4Client: the client side of IMAP4rev1 on a CMailSocket. Tagged
// commands (tags "0", "1", ... from each Connect), a response reader that
// joins literals into their response, typed results (net/imap4_records.h),
// capability discovery, STARTTLS, LOGIN, the folder and message commands, and
// pipelining: several commands sent before their answers are read.
//
// Return codes: 0, a code of net/imap4_errors.h (family 0x80C4), or the
// transport's codes (0x80C0, 0x80C1, 0x80C5) as they are. A NO, BAD or BYE
// ends the command and leaves the connection as it is; lastReply() holds the
// server's line of the last failed command (empty after a success). Append
// without a stream gives rc::kInvalidArg, rc::kOutOfMemory when memory runs
// out.
//
// Folder names are UTF-16 and travel in modified UTF-7 ("imap4-utf-7"),
// quoted as follows (kept as it stands, see QuoteArgument): "" for an empty
// text; the text between double quotes when a character BEFORE the last one
// is a control character, blank, ( ) { % * " \ or ]; otherwise bare. Nothing
// is escaped.
//
// Memory: a response is held whole only up to the literal limit
// (SetMaxLiteralSize, 64 MiB by default) besides the socket's line bound;
// message bodies can bypass it through the literal hook, and FETCH data
// through the FETCH listener, so a run over many messages holds one at a
// time.
//
// Logging goes through the socket's line listeners and log mask
// (kLogCommands by default). LOGIN is shown as "<tag> LOGIN ********
// ********" unless the mask holds kLogCredentials. Literal bytes read into a
// response are reported at kImap4LogLiterals.
//
// Threads: one thread at a time (the account's worker), like CMailSocket;
// the hook and the listener are called on it.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/date_value.h"
#include "base/result.h"
#include "base/wide_string.h"
#include "mime/stream.h"
#include "net/imap4_errors.h"
#include "net/imap4_records.h"
#include "net/mail_socket.h"

namespace trv {

class CImap4Client;
struct Imap4Response;

// Log level of literal bytes read into a response (besides kLogCommands and
// kLogCredentials).
inline constexpr uint32_t kImap4LogLiterals = 4;

// Where a literal sits in the response being read.
struct Imap4LiteralContext {
  std::string_view tag;      // the outstanding command the response is filed under ("" for none)
  uint32_t number = 0;       // the message number of a FETCH response, 0 outside one
  std::string_view item;     // the FETCH item as received, e.g. "BODY[]<0>" or "BODY[HEADER]"; "" outside FETCH
  std::string_view section;  // its section, upper-cased: "", "HEADER", ...; "" outside FETCH
  std::optional<uint32_t> origin;  // <N> of a partial answer
  uint64_t size = 0;         // the announced size in bytes
};

// Asked when a literal is announced, before any of its bytes are read. A hook
// that takes the literal gets exactly context.size bytes through OnLiteralBytes
// in pieces (valid only during the call) and then the section is recorded as
// streamed: size known, no bytes. A failure from OnLiteralBytes ends the
// command with that code and closes the connection (the rest of the literal
// is unread). A literal not taken is read into the response, bounded by the
// literal limit.
class Imap4LiteralHook {
 public:
  virtual ~Imap4LiteralHook() = default;
  virtual bool TakeLiteral(const Imap4LiteralContext& context) = 0;
  virtual Result OnLiteralBytes(std::string_view piece) = 0;
};

// Told each FETCH response as it is parsed (then the data is dropped, not
// filed in the command's result). The data is valid only during the call.
class Imap4FetchListener {
 public:
  virtual ~Imap4FetchListener() = default;
  virtual void OnFetch(std::string_view tag, const Imap4FetchData& data) = 0;
};

class CImap4Client : public CMailSocket {
 public:
  // The last of a sequence set: "*" (every message from first on).
  static constexpr uint32_t kAll = 0xFFFFFFFFu;
  static constexpr uint64_t kDefaultMaxLiteralSize = 64ull << 20;
  static constexpr size_t kAppendPiece = 4096;

  CImap4Client();
  ~CImap4Client() override;

  // TCP (SOCKS, implicit TLS), resets the tag counter, capabilities, the
  // authenticated flag and the selected mailbox, then reads the greeting up
  // to its untagged status: OK (capabilities taken from a CAPABILITY code),
  // PREAUTH (authenticated), NO rc::kImap4No, BAD or BYE rc::kImap4Bad.
  // A failure closes the connection. Returns 0 at once when connected.
  Result Connect(std::string_view host, uint16_t port) override;
  // Forgets the outstanding commands, then closes.
  Result Close() override;

  // "CAPABILITY", sent only when forced or when capabilities are not known.
  Result Capability(bool force);
  // "STARTTLS" (rc::kImap4NoStartTls, nothing sent, without the capability),
  // the handshake, then CAPABILITY again.
  Result StartTls();
  // "LOGIN user password" (rc::kImap4Bad, nothing sent, with LOGINDISABLED);
  // on success authenticated, then CAPABILITY again.
  Result Login(std::string_view user, std::string_view password);
  Result Logout();  // the BYE that precedes the tagged OK is expected
  Result Noop();

  // Entries in result().list. Reference and pattern are folder names.
  Result List(WStringView reference, WStringView pattern);
  Result Lsub(WStringView reference, WStringView pattern);
  // The selected mailbox's data is reset first and then filled: mailbox().
  Result Select(WStringView folder);
  Result Examine(WStringView folder);
  // items: kImap4Status* bits; the answer in result().status_items.
  Result Status(WStringView folder, uint32_t items);
  // FETCH data in result().fetch, or to the FETCH listener. Items holding a
  // blank are sent in parentheses.
  Result Fetch(uint32_t first, uint32_t last, std::string_view items, bool uid);
  // mode 1 "+FLAGS", 2 "-FLAGS", otherwise "FLAGS"; flags: kImap4Flag* bits.
  Result Store(uint32_t first, uint32_t last, int mode, uint32_t flags, bool silent, bool uid);
  Result Copy(uint32_t first, uint32_t last, WStringView folder, bool uid);  // COPYUID in result()
  Result Expunge();
  Result UidExpunge(uint32_t first, uint32_t last);
  Result Create(WStringView folder);
  Result Delete(WStringView folder);
  Result Rename(WStringView old_name, WStringView new_name);
  Result Subscribe(WStringView folder);
  Result Unsubscribe(WStringView folder);
  // "CLOSE" (the name Close() is the socket's); resets the selected mailbox.
  Result CloseMailbox();
  Result Check();
  // "APPEND folder [(flags)] ["date-time"] {size}"; the server must answer
  // "+" (else rc::kImap4Bad), then the stream goes out in kAppendPiece
  // pieces and an empty line. size 0: the stream is rewound and its length
  // taken. date kNoDate sends none. APPENDUID in result().
  Result Append(WStringView folder, uint32_t flags, double date, CXmStream* message, uint64_t size);

  // Pipelining. Begin sends "<tag> <command>" without reading and gives its
  // tag; Finish reads responses until that tag is answered (answers of other
  // outstanding commands met on the way are kept for their own Finish) and
  // returns the command's outcome, its record in result(). Finish of a tag
  // that is not outstanding and not kept gives rc::kImap4NoAnswer. The
  // one-command calls above are Begin + Finish.
  // Keep a window: a client that sends without reading while the server
  // answers can fill both directions' buffers and wait for ever (until the
  // time-out), so a long run Begins a few dozen commands ahead and Finishes
  // the oldest before Beginning more. Untagged data is filed under the
  // command it answers (see Owner), else under the oldest outstanding one:
  // servers may answer pipelined commands out of order.
  Result Begin(std::string_view command, std::string* tag);
  Result BeginFetch(uint32_t first, uint32_t last, std::string_view items, bool uid, std::string* tag);
  Result Finish(std::string_view tag);
  size_t outstanding() const { return pending_.size(); }

  // Not owned; must outlive its use. Null: literals are read into responses.
  void SetLiteralHook(Imap4LiteralHook* hook) { literal_hook_ = hook; }
  // Not owned. Null: FETCH data is filed in the command's result.
  void SetFetchListener(Imap4FetchListener* listener) { fetch_listener_ = listener; }
  // The most bytes held for one response (literals not taken plus lines);
  // 0 restores kDefaultMaxLiteralSize.
  void SetMaxLiteralSize(uint64_t bytes) { max_literal_ = bytes ? bytes : kDefaultMaxLiteralSize; }

  // Command lines as sent (for pipelined commands given to Begin).
  static std::string QuoteArgument(std::string_view text);
  static std::string EncodeFolder(WStringView folder);  // modified UTF-7
  // "UID " when uid, command, " ", first (0 sent as 1), ":*" or ":last", " ".
  static std::string SequenceSet(std::string_view command, uint32_t first, uint32_t last, bool uid);
  static std::string FlagList(uint32_t flags);  // "" for none
  static std::string DateTime(double date);     // "17-Jul-1996 02:44:25 +0000"

  const std::string& lastReply() const { return last_reply_; }
  // The record of the last command finished (or of the greeting).
  const Imap4CommandResult& result() const { return result_; }
  const Imap4MailboxData& mailbox() const { return mailbox_; }
  const Imap4Capabilities& capability_state() const { return capabilities_; }
  uint32_t capabilities() const { return capabilities_.bits; }
  bool HasCapability(std::string_view word) const { return capabilities_.Has(word); }
  bool authenticated() const { return authenticated_; }
  uint32_t tag_counter() const { return tag_counter_; }

 private:
  struct Pending;
  Result Command(std::string_view command);
  Result FolderCommand(std::string_view verb, WStringView folder);
  Result SelectCommand(std::string_view verb, WStringView folder);
  Result SendTagged(std::string_view command, std::string_view shown, std::string* tag);
  // Reads one response with its literals into *response.
  Result ReadResponse(Imap4Response* response);
  Result TakeLiteral(Imap4Response* response, uint64_t size, uint64_t* held);
  // Reads and dispatches until `tag` is answered ("" for the greeting), or,
  // with continuation, until a "+" arrives.
  Result ReadUntil(std::string_view tag, bool continuation = false);
  Result Dispatch(const Imap4Response& response, std::string_view wanted, bool continuation, bool* done,
                  Result* outcome);
  Result Outcome(const Imap4CommandResult& record);
  Pending* Oldest();
  // The outstanding command untagged data belongs to. Servers may run
  // pipelined commands side by side and answer them out of order, so the
  // oldest command is only the fallback: FETCH data goes to the FETCH whose
  // set holds its number (or its UID), STATUS, LIST, LSUB and SEARCH data to
  // the oldest command of that verb.
  Pending* Owner(std::string_view keyword, uint32_t number, std::optional<uint32_t> uid);
  void ForgetPending();

  Imap4LiteralHook* literal_hook_ = nullptr;
  Imap4FetchListener* fetch_listener_ = nullptr;
  bool authenticated_ = false;
  uint32_t tag_counter_ = 0;
  Imap4Status last_kind_ = Imap4Status::kNone;
  Imap4Capabilities capabilities_;
  Imap4MailboxData mailbox_;
  std::string last_reply_;
  Imap4CommandResult result_;
  std::deque<std::unique_ptr<Pending>> pending_;   // sent, not yet answered, oldest first
  std::deque<std::unique_ptr<Pending>> answered_;  // answered, not yet finished
  Imap4CommandResult greeting_;                    // untagged data with no command outstanding
  uint64_t max_literal_ = kDefaultMaxLiteralSize;
};

}  // namespace trv
