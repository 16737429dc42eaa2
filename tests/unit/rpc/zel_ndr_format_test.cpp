// The stub descriptions against the interface definition: each is read by a reader of its own into
// the same words.
#include "rpc/zel_ndr_format.h"

#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace zel {
namespace {

using ::testing::ElementsAre;

// ---- What zel.idl says ----

struct Definition {
  std::string name;
  std::vector<std::string>
      parameters;  // "in hyper", "out string[4]", "in,out context 0"; no handle
};

std::string ReadDefinitionFile() {
  std::ifstream file("rpc/zel.idl");
  EXPECT_TRUE(file);
  std::stringstream text;
  text << file.rdbuf();
  const std::string code = std::regex_replace(text.str(), std::regex("//[^\n]*"), "");
  return std::regex_replace(code, std::regex("\\s+"), " ");
}

// A parameter `[attributes] type name` in words; `names` are those of all the parameters.
std::string DescribeDefined(const std::string& parameter, const std::vector<std::string>& names) {
  static const std::map<std::string, std::string> kTypes = {{"unsigned hyper", "hyper"},
                                                            {"unsigned hyper*", "hyper"},
                                                            {"unsigned long", "long"},
                                                            {"unsigned short", "ushort"},
                                                            {"GUID*", "GUID"},
                                                            {"BitmapInfo*", "BitmapInfo"},
                                                            {"BytePipe*", "pipe"},
                                                            {"wchar_t*", "string"},
                                                            {"FileListContext*", "context 0"},
                                                            {"BitmapListContext*", "context 1"}};
  std::smatch parts;
  EXPECT_TRUE(
      std::regex_match(parameter, parts, std::regex(R"(\s*\[([^\]]*)\]\s*(.*\S)\s+(\w+)\s*)")))
      << parameter;
  const std::string attributes = std::regex_replace(parts.str(1), std::regex(R"(\s)"), "");
  std::string words = attributes.substr(0, attributes.find(",s")) + " " + kTypes.at(parts.str(2));
  std::smatch count;
  if (std::regex_search(attributes, count, std::regex(R"(size_is\((\w+)\))"))) {
    const auto at = std::find(names.begin(), names.end(), count.str(1));
    words += "[" + std::to_string(at - names.begin()) + "]";
  }
  EXPECT_EQ(parts.str(2) == "wchar_t*", attributes.find("string") != std::string::npos);
  return words;
}

std::vector<Definition> ReadDefinitions() {
  const std::string text = ReadDefinitionFile();
  const std::regex procedure(R"(error_status_t (\w+)\( ?([^;]*)\);)");
  std::vector<Definition> definitions;
  for (std::sregex_iterator at(text.begin(), text.end(), procedure), end; at != end; ++at) {
    std::vector<std::string> parameters;
    std::vector<std::string> names;
    // A comma between parameters is followed by the next one's attributes.
    const std::string list = std::regex_replace((*at).str(2), std::regex(R"(,\s*\[)"), ";[");
    std::istringstream each(list);
    for (std::string parameter; std::getline(each, parameter, ';');) {
      parameters.push_back(parameter);
      names.push_back(std::regex_replace(parameter, std::regex(R"(.*\s)"), ""));
    }
    EXPECT_EQ(parameters.at(0), "[in] handle_t Binding");
    Definition definition = {(*at).str(1), {}};
    for (std::size_t i = 1; i < parameters.size(); ++i) {
      definition.parameters.push_back(DescribeDefined(parameters[i], names));
    }
    definitions.push_back(definition);
  }
  return definitions;
}

// ---- What the descriptions say ----

unsigned U8(const auto& format, std::size_t at) {
  return format.at(at);
}
unsigned U16(const auto& format, std::size_t at) {
  return U8(format, at) | U8(format, at + 1) << 8;
}
// What the relative offset at `at` refers to.
std::size_t Target(std::size_t at) {
  return at + static_cast<std::int16_t>(U16(kTypeFormat, at));
}

std::string DescribeType(std::size_t at) {
  switch (U8(kTypeFormat, at)) {
    case 0x30:
      EXPECT_EQ(U8(kTypeFormat, at + 1), 0xe0u);  // by reference, in and out
      EXPECT_EQ(U8(kTypeFormat, at + 3), 0u);     // the procedure's only one
      return "context " + std::to_string(U8(kTypeFormat, at + 2));
    case 0x25:
      if (U8(kTypeFormat, at + 1) == 0x5c) return "string";
      EXPECT_EQ(U16(kTypeFormat, at + 1), 0x2744u);  // sized by a parameter, an unsigned short
      EXPECT_EQ(U8(kTypeFormat, at + 3), 0u);
      EXPECT_EQ(U16(kTypeFormat, at + 6), 1u);
      return "string[" + std::to_string(U16(kTypeFormat, at + 4) / 8) + "]";
    case 0x15:
      return U16(kTypeFormat, at + 2) == 16 ? "GUID" : "BitmapInfo";
    case 0xb5:
      EXPECT_EQ(U8(kTypeFormat, Target(at + 2)), 0x01u);  // of bytes
      EXPECT_EQ(U16(kTypeFormat, at + 4), 1u);
      EXPECT_EQ(U16(kTypeFormat, at + 6), 1u);
      return "pipe";
    default:
      ADD_FAILURE() << "type at " << at;
      return "";
  }
}

constexpr unsigned kMustSize = 0x0001, kMustFree = 0x0002, kPipe = 0x0004, kIn = 0x0008,
                   kOut = 0x0010, kReturn = 0x0020, kBase = 0x0040, kReference = 0x0100,
                   kServerRoom = 0xe000;

// The bytes that the server keeps for an [out] parameter.
std::size_t RoomFor(const std::string& words) {
  static const std::map<std::string, std::size_t> kRooms = {
      {"out hyper", 8}, {"out GUID", 16}, {"out BitmapInfo", 56}, {"out pipe", 32}};
  const auto found = kRooms.find(words);
  return found == kRooms.end() ? 0 : found->second;
}

std::string DescribeParameter(std::size_t at) {
  const unsigned flags = U16(kProcedureFormat, at);
  std::string words = (flags & kIn) != 0 ? (flags & kOut) != 0 ? "in,out " : "in " : "out ";
  if ((flags & kBase) != 0) {
    static const std::map<unsigned, std::string> kBases = {
        {0x07, "ushort"}, {0x08, "long"}, {0x0b, "hyper"}};
    words += kBases.at(U8(kProcedureFormat, at + 4));
    EXPECT_EQ(U8(kProcedureFormat, at + 5), 0u);
  } else {
    words += DescribeType(U16(kProcedureFormat, at + 4));
  }
  const bool is_string = words.find("string") != std::string::npos;
  const bool is_structure = words.ends_with("GUID") || words.ends_with("BitmapInfo");
  EXPECT_EQ((flags & kMustSize) != 0, is_string) << words;
  EXPECT_EQ((flags & kMustFree) != 0, is_string || is_structure) << words;
  EXPECT_EQ((flags & kPipe) != 0, words == "out pipe");
  EXPECT_EQ((flags & kReference) != 0, (flags & kOut) != 0 || is_string || is_structure) << words;
  EXPECT_EQ((flags & kServerRoom) >> 13, RoomFor(words) / 8) << words;
  return words;
}

struct Description {
  std::size_t number;
  std::size_t stack_size;
  unsigned flags;
  unsigned check_flags;
  std::size_t end;                      // behind the description
  std::vector<std::string> parameters;  // without the return code
};

Description ReadDescription(std::size_t at) {
  EXPECT_EQ(U16(kProcedureFormat, at), 0x4800u);                                 // explicit handle
  EXPECT_EQ(U16(kProcedureFormat, at + 2) | U16(kProcedureFormat, at + 4), 0u);  // no flags
  EXPECT_EQ(U16(kProcedureFormat, at + 10), 0x32u);                              // primitive
  EXPECT_EQ(U16(kProcedureFormat, at + 12), 0u);                                 // the first
  EXPECT_EQ(U8(kProcedureFormat, at + 20), 10u);  // bytes of the extension
  EXPECT_EQ(U16(kProcedureFormat, at + 22), (U8(kProcedureFormat, at + 21) & 2) >> 1);
  for (std::size_t zero = 24; zero < 30; zero += 2) {
    EXPECT_EQ(U16(kProcedureFormat, at + zero), 0u);
  }
  const std::size_t count = U8(kProcedureFormat, at + 19);
  Description description = {.number = U16(kProcedureFormat, at + 6),
                             .stack_size = U16(kProcedureFormat, at + 8),
                             .flags = U8(kProcedureFormat, at + 18),
                             .check_flags = U8(kProcedureFormat, at + 21),
                             .end = at + 30 + 6 * count,
                             .parameters = {}};
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t parameter = at + 30 + 6 * i;
    EXPECT_EQ(U16(kProcedureFormat, parameter + 2), 8 * (i + 1));
    if (i + 1 < count) {
      description.parameters.push_back(DescribeParameter(parameter));
    } else {
      EXPECT_EQ(U16(kProcedureFormat, parameter), kOut | kReturn | kBase);
      EXPECT_EQ(U16(kProcedureFormat, parameter + 4), 0x10u);  // error_status_t
    }
  }
  return description;
}

bool Contains(const Description& description, const std::string& words) {
  for (const std::string& parameter : description.parameters) {
    if (parameter.starts_with(words)) return true;
  }
  return false;
}

TEST(ZelNdrFormatTest, DescribesEveryProcedureAsDefined) {
  const std::vector<Definition> definitions = ReadDefinitions();
  ASSERT_EQ(definitions.size(), kOperations);
  for (std::size_t number = 0; number < kOperations; ++number) {
    SCOPED_TRACE(definitions[number].name);
    const Description description = ReadDescription(kProcedureOffsets[number]);
    EXPECT_EQ(description.number, number);
    EXPECT_EQ(description.parameters, definitions[number].parameters);
  }
}

TEST(ZelNdrFormatTest, DefinesTheOperationsInTheOrderOfTheirNumbers) {
  std::vector<std::string> names;
  for (const Definition& definition : ReadDefinitions()) names.push_back(definition.name);
  EXPECT_THAT(names, ElementsAre("Ping", "ListFiles", "ListBitmaps", "CopyBitmap", "StartTracking",
                                 "StartTracking2", "StopTracking", "DeleteBitmap",
                                 "SynchronizeBitmaps", "GetDriverStatus", "ZEL_GetTrackedFiles"));
}

TEST(ZelNdrFormatTest, ProceduresFollowEachOtherToTheFinalZero) {
  std::size_t end = 0;
  for (const std::uint16_t offset : kProcedureOffsets) {
    EXPECT_EQ(offset, end);
    end = ReadDescription(offset).end;
  }
  EXPECT_EQ(end + 1, kProcedureFormat.size());
  EXPECT_EQ(kProcedureFormat.back(), 0);
  EXPECT_EQ(kTypeFormat.back(), 0);
}

TEST(ZelNdrFormatTest, StackHoldsHandleParametersAndCode) {
  for (const std::uint16_t offset : kProcedureOffsets) {
    const Description description = ReadDescription(offset);
    EXPECT_EQ(description.stack_size, 8 * (description.parameters.size() + 2));
  }
}

TEST(ZelNdrFormatTest, FlagsSayWhatTheParametersNeed) {
  for (const std::uint16_t offset : kProcedureOffsets) {
    const Description description = ReadDescription(offset);
    SCOPED_TRACE(description.number);
    EXPECT_EQ(description.flags & 0x44, 0x44u);  // a return value and extensions
    EXPECT_EQ((description.flags & 0x01) != 0, Contains(description, "out string"));
    EXPECT_EQ((description.flags & 0x02) != 0, Contains(description, "in string"));
    EXPECT_EQ((description.flags & 0x08) != 0, Contains(description, "out pipe"));
    // Checked counts everywhere; the client's side has some to check where the answer has a string.
    EXPECT_EQ(description.check_flags, Contains(description, "out string") ? 3u : 1u);
  }
}

// What values of constant size take of a buffer, with the padding before each.
std::size_t BufferNeeded(const std::vector<std::string>& parameters, const std::string& direction) {
  static const std::map<std::string, std::pair<std::size_t, std::size_t>> kSizes = {
      {"hyper", {8, 8}},       {"long", {4, 4}},       {"ushort", {2, 2}},    {"GUID", {16, 4}},
      {"BitmapInfo", {56, 8}}, {"context 0", {20, 4}}, {"context 1", {20, 4}}};
  std::size_t size = 0;
  for (const std::string& parameter : parameters) {
    const std::size_t space = parameter.find(' ');
    const auto found = kSizes.find(parameter.substr(space + 1));
    if (parameter.substr(0, space).find(direction) == std::string::npos || found == kSizes.end()) {
      continue;
    }
    const auto [bytes, alignment] = found->second;
    size = (size + alignment - 1) / alignment * alignment + bytes;
  }
  return size;
}

TEST(ZelNdrFormatTest, BuffersHoldEverythingOfConstantSize) {
  for (const std::uint16_t offset : kProcedureOffsets) {
    const Description description = ReadDescription(offset);
    SCOPED_TRACE(description.number);
    EXPECT_GE(U16(kProcedureFormat, offset + 14), BufferNeeded(description.parameters, "in"));
    EXPECT_GE(U16(kProcedureFormat, offset + 16), BufferNeeded(description.parameters, "out") + 4);
  }
}

// The bytes of a structure's members from `at` on, to its end.
std::size_t MeasureMembers(std::size_t at) {
  std::size_t size = 0;
  for (;; ++at) {
    switch (U8(kTypeFormat, at)) {
      case 0x06:
        size += 2;
        break;
      case 0x08:
      case 0x40:
        size += 4;
        break;
      case 0x0b:
        size += 8;
        break;
      case 0x4c: {  // embedded: padding, then where its description is
        const std::size_t embedded = Target(at + 2);
        size += U8(kTypeFormat, at + 1) + U16(kTypeFormat, embedded + 2);
        at += 3;
        break;
      }
      case 0x5b:
        return size;
      default:
        ADD_FAILURE() << "member at " << at;
        return 0;
    }
  }
}

TEST(ZelNdrFormatTest, StructuresAreAsLongAsTheirMembers) {
  int structures = 0;
  for (const std::uint16_t offset : kProcedureOffsets) {
    const std::size_t end = ReadDescription(offset).end;
    for (std::size_t at = offset + 30; at < end; at += 6) {
      const std::size_t type = U16(kProcedureFormat, at + 4);
      if ((U16(kProcedureFormat, at) & kBase) != 0 || U8(kTypeFormat, type) != 0x15) continue;
      ++structures;
      const std::size_t size = U16(kTypeFormat, type + 2);
      EXPECT_EQ(MeasureMembers(type + 4), size);
      EXPECT_EQ(size % (U8(kTypeFormat, type + 1) + 1), 0u);  // a multiple of its alignment
    }
  }
  EXPECT_EQ(structures, 6);
}

}  // namespace
}  // namespace zel
