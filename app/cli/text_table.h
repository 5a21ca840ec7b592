// Aligned text tables for the commands' human-readable output: a header row
// and rows of cells, each column as wide as its widest cell (counted in
// characters, not bytes), two spaces between columns, numbers right-aligned.
#pragma once

#include <string>
#include <vector>

namespace trv::cli {

class TextTable {
 public:
  enum Align { kLeft, kRight };

  // One column per header; `align` (optional) per column, left by default.
  explicit TextTable(std::vector<std::string> headers, std::vector<Align> align = {});

  // Cells are UTF-8; control characters in them become blanks, so that a
  // row stays one line. A row with fewer cells than columns is padded.
  void AddRow(std::vector<std::string> cells);
  size_t rows() const { return rows_.size(); }

  // The table, one line per row after the header line, each ending in "\n".
  // Trailing blanks are not written.
  std::string Render() const;

 private:
  std::vector<std::string> headers_;
  std::vector<Align> align_;
  std::vector<std::vector<std::string>> rows_;
};

// Characters in UTF-8 text (bytes that do not continue a sequence).
size_t DisplayWidth(const std::string& utf8);

}  // namespace trv::cli
