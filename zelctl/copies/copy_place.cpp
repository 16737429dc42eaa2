#include "zelctl/copies/copy_place.h"

#include <span>
#include <utility>

#include "zelctl/checksum.h"
#include "zelctl/id_text.h"
#include "zelctl/path_text.h"

namespace zel::ctl {

namespace {

std::size_t EndOfFolder(const std::string& path) {
  const std::size_t separator = path.find_last_of("\\/");
  return separator == std::string::npos ? 0 : separator + 1;
}

// File systems do not tell cases apart. Two spellings of one name that this takes for different
// ones meet at the file's own lock as soon as there is a file.
std::string NameKey(const std::string& path) {
  const std::string name = FoldCase(path.substr(EndOfFolder(path)));
  return "name-" + FormatId(Checksum(std::as_bytes(std::span(name))));
}

}  // namespace

CopyPlace::CopyPlace(Machine& machine, std::string path)
    : told_(std::move(path)),
      path_(machine.Resolve(told_)),
      folder_(path_.substr(0, EndOfFolder(path_)) + ".zelctl"),
      name_key_(NameKey(path_)) {}

std::string CopyPlace::StemOf(const FileIdentity& copy) const {
  return folder_ + "\\" + (copy.file_id == 0 ? name_key_ : FormatId(copy.file_id));
}

std::string CopyPlace::record(const FileIdentity& copy) const {
  return StemOf(copy) + ".copy";
}

std::string CopyPlace::lock(const FileIdentity& copy) const {
  return StemOf(copy) + ".lock";
}

std::string CopyPlace::replacement() const {
  return folder_ + "\\" + name_key_ + ".new";
}

}  // namespace zel::ctl
