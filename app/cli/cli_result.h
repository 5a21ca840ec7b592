// Result codes the command line names that the layers below have no text
// for.
#pragma once

#include <iterator>

#include "base/result.h"

namespace trv::cli {

// A message key, or another named thing, that is not there.
inline constexpr Result kNotFound = FromWin32(1168);

inline constexpr ResultTextEntry kCliTexts[] = {
    {0x80070490, "Element not found."},
};
inline constexpr ResultTextTable kCliTextTable{kCliTexts, std::size(kCliTexts)};
inline const bool kCliTextsRegistered = RegisterResultTexts(kCliTextTable);

}  // namespace trv::cli
