// Content transfer encodings: names and codes, encoder and decoder filters by
// code, and the automatic choice for a body that is written.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "base/result.h"
#include "base/wide_string.h"
#include "mime/codec_streams.h"
#include "mime/stream.h"

namespace trv {

enum TransferEncoding : int {
  kEncodingBinary = 0,
  kEncoding7bit = 1,
  kEncoding8bit = 2,
  kEncodingBase64 = 3,
  kEncodingQuotedPrintable = 4,
};

// "Binary", "7bit", "8bit", "base64", "quoted-printable"; "8bit" for a code
// outside 0..4.
const char* TransferEncodingName(TransferEncoding code);
WString TransferEncodingNameW(TransferEncoding code);

// The code of a name, compared without regard to case after trimming blanks;
// a missing or unknown name counts as kEncoding8bit. `known` (optional) tells
// whether the name was one of the five.
TransferEncoding TransferEncodingFromName(std::string_view name, bool* known = nullptr);
TransferEncoding TransferEncodingFromName(WStringView name, bool* known = nullptr);

// A filter that encodes (or decodes) by the code and writes to `next`: base64
// and quoted-printable with line width 76, every other code a plain copy.
std::unique_ptr<CXmFilterStream> MakeTransferEncoder(TransferEncoding code, CXmStream& next);
std::unique_ptr<CXmFilterStream> MakeTransferDecoder(TransferEncoding code, CXmStream& next);

// The automatic choice: reads `body` from its start (at most `limit` bytes; 0
// or less reads it all). Every byte below 128 gives 7bit. Otherwise the whole
// body is encoded both ways and quoted-printable wins only when strictly
// shorter than base64 (a tie goes to base64). Never 8bit or Binary.
// Leaves `body` at an unspecified position.
Result ChooseTransferEncoding(CXmStream& body, int64_t limit, TransferEncoding* chosen);

// Writes `body` (from its start) to `out` through the encoding `name`
// ("base64", "quoted-printable", "8bit", "7bit", "Binary", any case); an empty
// or unknown name chooses automatically with `limit` as above. The encoding
// used is returned in `*used` for the part's "Content-Transfer-Encoding".
Result WriteEncodedBody(CXmStream& body, std::string_view name, int64_t limit, CXmStream& out,
                        TransferEncoding* used);

}  // namespace trv
