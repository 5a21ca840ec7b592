#include "app/cli/text_table.h"

#include <algorithm>

namespace trv::cli {

size_t DisplayWidth(const std::string& utf8) {
  return static_cast<size_t>(std::count_if(utf8.begin(), utf8.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

TextTable::TextTable(std::vector<std::string> headers, std::vector<Align> align)
    : headers_(std::move(headers)), align_(std::move(align)) {
  align_.resize(headers_.size(), kLeft);
}

void TextTable::AddRow(std::vector<std::string> cells) {
  cells.resize(headers_.size());
  for (std::string& cell : cells) {
    for (char& c : cell) {
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    }
  }
  rows_.push_back(std::move(cells));
}

std::string TextTable::Render() const {
  std::vector<size_t> width(headers_.size());
  for (size_t c = 0; c < headers_.size(); ++c) width[c] = DisplayWidth(headers_[c]);
  for (const auto& row : rows_) {
    for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], DisplayWidth(row[c]));
  }
  std::string out;
  auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (size_t c = 0; c < cells.size(); ++c) {
      if (c > 0) text += "  ";
      const std::string pad(width[c] - DisplayWidth(cells[c]), ' ');
      text += align_[c] == kRight ? pad + cells[c] : cells[c] + pad;
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    out += text;
    out += '\n';
  };
  line(headers_);
  for (const auto& row : rows_) line(row);
  return out;
}

}  // namespace trv::cli
