#include "zelctl/table_text.h"

namespace zel::ctl {

namespace {

std::string Line(std::span<const Column> columns, const std::vector<std::string>& fields,
                 TableFor reader) {
  std::string line;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    const std::size_t begin = line.size();
    line += fields[i];
    if (i + 1 == fields.size()) break;
    if (reader == TableFor::kPeople && line.size() < begin + columns[i].width) {
      line.resize(begin + columns[i].width, ' ');
    }
    line += "  ";
  }
  return line + "\n";
}

}  // namespace

TableText::TableText(std::span<const Column> columns, TableFor reader)
    : columns_(columns), reader_(reader) {
  if (reader == TableFor::kScripts) return;
  std::vector<std::string> headings;
  for (const Column& column : columns) headings.emplace_back(column.heading);
  text_ = Line(columns, headings, reader);
}

void TableText::AddLine(const std::vector<std::string>& fields) {
  has_lines_ = true;
  text_ += Line(columns_, fields, reader_);
}

}  // namespace zel::ctl
