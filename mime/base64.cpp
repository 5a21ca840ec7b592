#include "mime/base64.h"

#include "mime/codec_streams.h"

namespace trv {

std::string Base64Encode(std::string_view bytes, int line_width) {
  // The encoder filter, with a work buffer that holds the whole result.
  CXmMemoryStream out;
  CXmBase64Encoder encoder(out, line_width, (bytes.size() + 2) / 3 * 4 + bytes.size() / 38 + 8);
  encoder.Write(bytes).Ignore();  // a memory stream does not fail
  encoder.Finish().Ignore();
  return out.Take();
}

bool Base64Decode(std::string_view text, std::string& out) {
  // The decoder filter over the text before the first "=".
  CXmMemoryStream sink;
  CXmBase64Decoder decoder(sink, 0, text.size() / 4 * 3 + 4);
  decoder.Write(text.substr(0, text.find('='))).Ignore();  // a memory stream does not fail
  decoder.Finish().Ignore();
  out = sink.Take();
  return decoder.clean();
}

}  // namespace trv
