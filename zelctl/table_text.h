// Lists in columns: with headings and aligned for people, bare for scripts. Pure.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zel::ctl {

struct Column {
  std::string_view heading;
  std::size_t width;  // of the usual contents; longer ones push the rest of their line
};

enum class TableFor { kPeople, kScripts };

// Fields stand two blanks apart; the last column is as long as it is.
class TableText {
 public:
  // Lifetime: the columns outlive the table.
  TableText(std::span<const Column> columns, TableFor reader);

  // `fields`: one for each column, in UTF-8; all but the last in ASCII.
  void AddLine(const std::vector<std::string>& fields);

  // The lines so far; a heading alone says nothing and is left out.
  [[nodiscard]] std::string text() const { return has_lines_ ? text_ : std::string(); }

 private:
  std::span<const Column> columns_;
  TableFor reader_;
  bool has_lines_ = false;
  std::string text_;
};

}  // namespace zel::ctl
