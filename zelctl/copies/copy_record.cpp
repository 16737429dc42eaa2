#include "zelctl/copies/copy_record.h"

#include <sstream>

#include "zelctl/checksum.h"
#include "zelctl/id_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {

namespace {

constexpr char kOpening[] = "zelctl-copy 1\n";
constexpr char kNoVolume[] = "-";

std::string Line(std::string_view name, std::initializer_list<std::string> words) {
  std::string line(name);
  for (const std::string& word : words) line += " " + word;
  return line + "\n";
}

std::string VolumeText(const FileIdentity& identity) {
  return identity.volume ? FormatGuid(*identity.volume) : kNoVolume;
}

// Reads word by word. What is not there or means nothing reads as 0: the caller writes what was
// read and compares.
class WordReader {
 public:
  explicit WordReader(std::string_view text) : words_{std::string(text)} {}

  std::string Word() {
    std::string word;
    words_ >> word;
    return word;
  }
  std::uint64_t Id() { return ParseId(Word()).value_or(0); }
  FileTime Time() { return ParseTime(Word(), 0).value_or(0); }
  FileIdentity Identity() {
    const std::optional<VolumeGuid> volume = ParseGuid(Word());
    return {.volume = volume, .file_id = Id()};
  }

 private:
  std::istringstream words_;
};

void ReadMember(WordReader& words, const std::string& name, CopyRecord& record) {
  if (name == "file") record.of = words.Identity();
  if (name == "copy") record.copy = words.Identity();
  if (name == "as-of") record.as_of = words.Time();
  if (name == "read-until") record.read_until = words.Time();
  if (name == "size") record.size = words.Id();
  if (name == "written") record.written = words.Time();
  if (name == "bitmap") record.bitmaps.push_back({.id = words.Id(), .begun = words.Time()});
  if (name == "half-way") {
    record.half_way = {
        .bitmap = words.Id(), .begun = words.Time(), .taken = words.Time(), .digest = words.Id()};
  }
  if (name == "beginning") record.beginning = {.at = words.Time()};
  if (name == "before" && record.beginning) {
    record.beginning->before.push_back({.id = words.Id(), .begun = words.Time()});
  }
  if (name == "writing" && record.half_way) {
    record.half_way->size = words.Id();
    record.half_way->from = words.Time();
    record.half_way->until = words.Time();
  }
}

}  // namespace

std::string FormatRecord(const CopyRecord& record) {
  std::string text = kOpening + Line("file", {VolumeText(record.of), FormatId(record.of.file_id)}) +
                     Line("copy", {VolumeText(record.copy), FormatId(record.copy.file_id)}) +
                     Line("as-of", {FormatTime(record.as_of)}) +
                     Line("read-until", {FormatTime(record.read_until)}) +
                     Line("size", {FormatId(record.size)}) +
                     Line("written", {FormatTime(record.written)});
  if (const auto& half = record.half_way) {
    text +=
        Line("half-way", {FormatId(half->bitmap), FormatTime(half->begun), FormatTime(half->taken),
                          FormatId(half->digest)}) +
        Line("writing", {FormatId(half->size), FormatTime(half->from), FormatTime(half->until)});
  }
  for (const OwnBitmap& bitmap : record.bitmaps) {
    text += Line("bitmap", {FormatId(bitmap.id), FormatTime(bitmap.begun)});
  }
  if (const auto& beginning = record.beginning) {
    text += Line("beginning", {FormatTime(beginning->at)});
    for (const BegunBitmap& bitmap : beginning->before) {
      text += Line("before", {FormatId(bitmap.id), FormatTime(bitmap.begun)});
    }
  }
  return text + Line("checksum", {FormatId(Checksum(std::as_bytes(std::span(text))))});
}

std::optional<CopyRecord> ParseRecord(std::string_view text) {
  if (!text.starts_with(kOpening)) return std::nullopt;
  WordReader words(text.substr(sizeof kOpening - 1));
  CopyRecord record;
  for (std::string name = words.Word(); !name.empty(); name = words.Word()) {
    ReadMember(words, name, record);
  }
  // Whatever is damaged or not written that way would come out differently.
  if (FormatRecord(record) != text) return std::nullopt;
  return record;
}

}  // namespace zel::ctl
