// The one result-code type of the engine: a 32-bit code in the HRESULT form.
// 0 is success; everything else is a failure that the caller must look at.
// Protocol families are told apart by the upper 16 bits (0x80C0 socket,
// 0x80C1 SOCKS, 0x80C2 POP3, 0x80C3 SMTP, 0x80C4 IMAP4, 0x80C5 secure
// transport, 0x80E1 SASL); the MIME layer has its own status values
// (0xA0003000, 0xA0003003). A few plain system codes (2, 13, 29, 30, 80) are
// returned as they are by the storage layer. This header holds the general
// and system codes; each layer declares its own family in its own header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace trv {

class [[nodiscard]] Result {
 public:
  constexpr Result() = default;
  constexpr explicit Result(uint32_t code) : code_(code) {}

  constexpr uint32_t code() const { return code_; }
  constexpr bool ok() const { return code_ == 0; }
  constexpr bool failed() const { return code_ != 0; }
  constexpr uint16_t family() const { return static_cast<uint16_t>(code_ >> 16); }

  // Marks a result as deliberately ignored (logging, best-effort cleanup).
  constexpr void Ignore() const {}

  friend constexpr bool operator==(Result a, Result b) { return a.code_ == b.code_; }

 private:
  uint32_t code_ = 0;
};

namespace rc {
inline constexpr Result kOk{0};
inline constexpr Result kFail{0x80004005};          // unspecified failure
inline constexpr Result kAbort{0x80004004};         // aborted by the user; never logged as an error
inline constexpr Result kNotImplemented{0x80004001}; // the object does not support the operation
inline constexpr Result kOutOfMemory{0x8007000E};
inline constexpr Result kInvalidArg{0x80070057};
inline constexpr Result kFileMissing{0x80070006};   // folder file missing

// Plain system codes used by the storage layer as they stand.
inline constexpr Result kFileNotFound{2};           // also: directory cannot be created
inline constexpr Result kInvalidData{13};           // a folder record cannot be read
inline constexpr Result kWriteFault{29};            // index or header cannot be written
inline constexpr Result kReadFault{30};             // a message record is short
inline constexpr Result kFileExists{80};            // refused overwrite while moving files
}  // namespace rc

// Family tests as the protocol layers use them: mask 0x1FFF0000.
constexpr bool IsSocketError(Result r) { return (r.code() & 0x1FFF0000u) == 0x00C00000u; }
constexpr bool IsSocksError(Result r) { return (r.code() & 0x1FFF0000u) == 0x00C10000u; }
constexpr bool IsSecureTransportError(Result r) { return (r.code() & 0x1FFF0000u) == 0x00C50000u; }

// Wraps a Win32 system error number as 0x8007xxxx.
constexpr Result FromWin32(uint32_t err) {
  return err == 0 ? rc::kOk : Result(0x80070000u | (err & 0xFFFFu));
}

// Translates an errno value into the system code the engine reports for it
// (0x8007xxxx with the Win32 number of the same meaning). The one place where
// errno becomes a result.
Result ResultFromErrno(int err);

// The text of a code for log lines and error messages, for example
// "The system cannot find the file specified." or "Unknown error 0x80C4000B".
// Never empty. A code without a text of its own gets its family's fallback
// ("IMAP4 error 0x80C40077.") when the family has one.
std::string ResultText(Result r);

// Each layer owns its codes and their texts and registers them here, so this
// layer lists none of them. A layer's result header does so through an inline
// variable, so any program that can produce one of its codes has its texts:
//
//   inline const bool kStoreTextsRegistered = RegisterResultTexts(kStoreTexts);
struct ResultTextEntry {
  uint32_t code;
  const char* text;
};
// A family's fallback: "<prefix> 0x80C40077." for its codes without a text.
// A family whose codes carry data (the SMTP reply errors hold the reply code)
// may also give describe: ResultText asks it first, for codes without a text
// of their own, and uses its answer unless it is empty. A family entry with
// describe wins over one without, whichever table came first.
struct ResultFamilyEntry {
  uint16_t family;
  const char* prefix;
  std::string (*describe)(Result) = nullptr;
};
struct ResultTextTable {
  const ResultTextEntry* entries;
  size_t count;
  const ResultFamilyEntry* families = nullptr;
  size_t family_count = 0;
};
// Thread-safe; the table must live as long as the program (a constant). A
// code registered twice keeps its first text. Returns true.
bool RegisterResultTexts(const ResultTextTable& table);

// Every registered code, in registration order (tests check each has a text).
std::vector<Result> RegisteredResultCodes();

// "0x%08X" of the code.
std::string ResultHex(Result r);

}  // namespace trv
