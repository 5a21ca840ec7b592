// Status values of the message-format layer and their texts.
#pragma once

#include <iterator>

#include "base/result.h"

namespace trv {

namespace rc {
inline constexpr Result kMimeOutOfMemory{8};
inline constexpr Result kMimeSyntax{0xA0003000};   // field without ":", multipart without boundary
inline constexpr Result kMimeCharset{0xA0003003};  // unknown or failed character-set conversion
}  // namespace rc

inline constexpr ResultTextEntry kMimeTexts[] = {
    {0xA0003000, "The message text has a syntax error."},
    {0xA0003003, "The text could not be converted between character sets."},
};
inline constexpr ResultTextTable kMimeTextTable{kMimeTexts, std::size(kMimeTexts)};
inline const bool kMimeTextsRegistered = RegisterResultTexts(kMimeTextTable);

}  // namespace trv
