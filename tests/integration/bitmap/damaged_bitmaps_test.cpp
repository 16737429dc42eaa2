// A CBT directory full of damaged bitmap files beside good ones, taken through the start-up scan,
// lookups, the idle scan and shutdown. Each file ends as its bytes demand; no good one is touched.
#include <algorithm>
#include <string>
#include <vector>

#include "bitmap/bitmap_manager.h"
#include "config/settings.h"
#include "tests/integration/support/bitmap_fixture.h"
#include "tests/integration/support/held_file.h"
#include "win32/handles.h"

namespace zel {
namespace {

using test::Get;
using test::GoodBitmap;
using test::kBlockSize;
using test::kCreated;
using test::kHeaderBytes;
using test::kVolume;
using test::Put;
using test::ReadFileBytes;

struct Damaged {
  std::string what;
  std::string bytes;
  std::uint64_t length = 0;  // the file is grown to this without writing
  std::wstring name = test::BitmapName(kCreated);
};

enum class End {
  kLoads,    // a lookup gives it
  kRefused,  // no lookup gives it; the file stays
  kDeleted,  // no lookup gives it, and the idle scan deletes the file
};

constexpr std::size_t kBitsBytes = 100;

std::string Good(FileId file) {
  std::string bits(kBitsBytes, '\0');
  for (std::size_t i = 0; i < kBitsBytes; ++i) bits[i] = static_cast<char>(i * 37);
  return GoodBitmap({kVolume, file}, bits);
}

// Each file is one of its own tracked file, whose id is its number.
class Corpus {
 public:
  Corpus() {
    Truncated();
    WrongFields();
    WrongNames();
    OddLengths();
    OldVersions();
    NoBitmapAtAll();
  }

  [[nodiscard]] const std::vector<Damaged>& files() const { return files_; }

 private:
  void Add(std::string what, std::string bytes, std::uint64_t length = 0) {
    files_.push_back({std::move(what), std::move(bytes), length});
  }
  [[nodiscard]] std::string Base() const { return Good(files_.size() + 1); }

  void Truncated() {
    for (const std::size_t boundary :
         {0x00, 0x04, 0x06, 0x08, 0x18, 0x20, 0x28, 0x30, 0x38,  0x3C,       0x3D,
          0x3E, 0x3F, 0x40, 0x44, 0x48, 0x50, 0x58, 0x60, 0x200, 0x200 + 50, 0x200 + 99}) {
      for (const std::size_t length : {boundary, boundary + 1, boundary - 1}) {
        if (length < kHeaderBytes + kBitsBytes) {
          Add("cut to " + std::to_string(length), Base().substr(0, length));
        }
      }
    }
  }

  void WrongFields() {
    struct Field {
      std::size_t offset;
      std::size_t size;
    };
    for (const auto [offset, size] :
         {Field{0x00, 4}, {0x04, 2}, {0x06, 2}, {0x08, 8}, {0x10, 8}, {0x18, 8}, {0x20, 8},
          {0x28, 8},      {0x30, 8}, {0x38, 4}, {0x3C, 1}, {0x3D, 1}, {0x3E, 1}, {0x3F, 1},
          {0x40, 4},      {0x44, 4}, {0x48, 8}, {0x50, 8}, {0x58, 8}, {0x60, 8}, {0x1F8, 8}}) {
      const std::uint64_t right = Get(Base(), offset, size);
      for (const std::uint64_t value :
           {std::uint64_t{0}, ~std::uint64_t{0}, right + 1, right - 1, right ^ 0x80, right << 1}) {
        std::string bytes = Base();
        Put(bytes, offset, value, size);
        Add("field " + std::to_string(offset) + " is " + std::to_string(value), bytes);
      }
    }
  }

  void WrongNames() {
    const std::wstring good = test::BitmapName(kCreated);
    for (const std::wstring& name :
         {good.substr(1), good + L"0", std::wstring(L"x"), good + L".tmp",
          std::wstring(16, L'0') + good.substr(16), std::wstring(16, L'f') + good.substr(16),
          good.substr(0, 16) + L"00000000", good.substr(0, 16) + L"ffffffff",
          good.substr(0, 16) + L"00020000", std::wstring(24, L'z')}) {
      files_.push_back({"named " + std::string(name.begin(), name.end()), Base(), 0, name});
    }
  }

  void OddLengths() {
    Add("longer than it says", Base() + "more");
    for (const std::uint32_t size : {0u, 1u, 99u, 101u, 0x7FFFFFFFu, 0xFFFFFE00u, 0xFFFFFE01u}) {
      std::string bytes = Base();
      Put(bytes, test::kAtBitmapSize, size, 4);
      Add("says " + std::to_string(size) + " bytes of bits", bytes);
    }
    Add("4 GiB", Base(), 1ull << 32);
    Add("4 GiB and a header", Base(), (1ull << 32) + kHeaderBytes);
    Add("4 GiB and one byte too few", Base(), (1ull << 32) + kHeaderBytes + kBitsBytes - 1);
    Add("4 GiB and all that it says", Base(), (1ull << 32) + kHeaderBytes + kBitsBytes);
  }

  void OldVersions() {
    for (const std::uint16_t version : {20, 21, 23}) {
      for (const std::uint16_t header_size : {512, 520, 519, 0}) {
        std::string bytes = Base();
        Put(bytes, 0x04, header_size, 2);
        Put(bytes, 0x06, version, 2);
        Add("version " + std::to_string(version) + ", header of " + std::to_string(header_size),
            bytes);
      }
    }
  }

  void NoBitmapAtAll() {
    Add("zeros", std::string(1000, '\0'));
    Add("ones", std::string(1000, '\xFF'));
    Add("text", std::string(1000, 'a'));
    std::uint32_t random = 1;
    for (int i = 0; i < 10; ++i) {
      std::string noise(512 + i * 100, '\0');
      for (char& byte : noise)
        byte = static_cast<char>((random = random * 1664525 + 1013904223) >> 24);
      Add("noise", noise);
    }
  }

  std::vector<Damaged> files_;
};

// Block size in a name of the right length, as far as it is one.
std::uint64_t BlockSizeInName(const std::wstring& name) {
  const std::wstring good = test::BitmapName(kCreated);
  if (name.size() != good.size()) return 0;
  for (const wchar_t* time : {L"0000000000000000", L"ffffffffffffffff", L"zzzzzzzzzzzzzzzz"}) {
    if (name.starts_with(time)) return 0;
  }
  const std::wstring size = name.substr(16);
  return size == L"00010000" ? kBlockSize : size == L"00020000" ? 2 * kBlockSize : 0;
}

End ExpectedEnd(const Damaged& file) {
  std::string bytes = file.bytes;
  const std::uint64_t length = std::max<std::uint64_t>(file.length, bytes.size());
  if (length == 0) return End::kRefused;  // an empty file cannot be mapped
  bytes.resize(std::max(bytes.size(), kHeaderBytes));
  if (512 + Get(bytes, 0x40, 4) > (length & 0xFFFFFFFF)) return End::kDeleted;
  const std::uint64_t version = Get(bytes, 0x06, 2);
  const std::uint64_t header_size = Get(bytes, 0x04, 2);
  const bool is_good = Get(bytes, 0x38, 4) == BlockSizeInName(file.name) &&
                       Get(bytes, 0x38, 4) != 0 && Get(bytes, 0x00, 4) == 0x624C455A &&
                       (version == 21 || version == 22) &&
                       (header_size == 512 || header_size == 520);
  return is_good ? End::kLoads : End::kRefused;
}

// What a damaged file's first bytes are after some lookups and a clean end.
std::string ExpectedBytes(const Damaged& file, BitmapId id, End end) {
  std::string bytes = file.bytes;
  const bool mapped = std::max<std::uint64_t>(file.length, bytes.size()) != 0;
  if (!mapped) return bytes;
  // A file that is refused was not closed cleanly when the next lookup tries it again.
  if (Get(bytes, test::kAtClosedCleanly, 1) != 1 || end == End::kRefused) {
    Put(bytes, test::kAtUnreliable, 1, 1);
  }
  Put(bytes, test::kAtClosedCleanly, end == End::kLoads ? 1 : 0, 1);
  // The steps in the order in which a load takes them, up to the one that refuses.
  if (Get(bytes, 0x38, 4) != BlockSizeInName(file.name) || Get(bytes, 0x38, 4) == 0 ||
      Get(bytes, 0x00, 4) != 0x624C455A) {
    return bytes;
  }
  if (Get(bytes, 0x06, 2) == 21) {
    Put(bytes, 0x50, id, 8);
    Put(bytes, 0x58, kCreated, 8);
    Put(bytes, 0x06, 22, 2);
  }
  if (Get(bytes, 0x06, 2) == 22 && Get(bytes, 0x04, 2) == 520) Put(bytes, 0x04, 512, 2);
  return bytes;
}

std::string WithoutLastUpdateTime(std::string bytes) {
  if (bytes.size() >= test::kAtLastUpdateTime + 8) Put(bytes, test::kAtLastUpdateTime, 0, 8);
  return bytes;
}

// Where two files differ, their LastUpdateTime apart; "nowhere".
std::string DifferenceBetween(const std::string& left, const std::string& right) {
  const std::string a = WithoutLastUpdateTime(left);
  const std::string b = WithoutLastUpdateTime(right);
  if (a.size() != b.size()) return "in length";
  const auto [at, other] = std::ranges::mismatch(a, b);
  return at == a.end() ? "nowhere" : "at " + std::to_string(at - a.begin());
}

std::string FirstBytes(const std::filesystem::path& path, std::size_t count) {
  std::string bytes(count, '\0');
  std::ifstream file(path, std::ios::binary);
  file.read(bytes.data(), static_cast<std::streamsize>(count));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

class DamagedBitmapsTest : public test::BitmapFixture {
 protected:
  static constexpr FileTime kBeside = kCreated + 1;  // the good one's in the same directory
  static constexpr FileId kUntouched = 0x10000;      // added to the id: not looked up
  static constexpr FileId kDirectory = 0x20000;
  static constexpr FileId kClosed = 0x20001;

  [[nodiscard]] std::filesystem::path DamagedPath(FileId file, const Damaged& damaged) const {
    return DirectoryOf({kVolume, file}) / damaged.name;
  }

  void WriteCorpus() {
    FileId file = 0;
    for (const Damaged& damaged : corpus_.files()) {
      const std::filesystem::path path = DamagedPath(++file, damaged);
      test::WriteFileBytes(path, damaged.bytes);
      if (damaged.length != 0) std::filesystem::resize_file(path, damaged.length);
      ids_.push_back(test::IdOf(path));
      (void)Write({kVolume, file}, kBeside, Good(file));
      (void)Write({kVolume, file + kUntouched}, kCreated, Good(file));
    }
    std::filesystem::create_directories(DirectoryOf({kVolume, kDirectory}) /
                                        test::BitmapName(kCreated));
    (void)Write({kVolume, kDirectory}, kBeside, Good(kDirectory));
    (void)Write({kVolume, kClosed}, kCreated, Good(kClosed));
  }

  static bool Finds(FileId file, std::wstring_view name) {
    for (const PinnedBitmap& bitmap : FindBitmapsForFile(kVolume, file)) {
      if (bitmap->FileName.ends_with(name)) return true;
    }
    return false;
  }

  void ExpectLookups(FileId file, const Damaged& damaged, BitmapId id) {
    const bool loads = ExpectedEnd(damaged) == End::kLoads;
    EXPECT_EQ(Finds(file, damaged.name), loads) << damaged.what;
    EXPECT_EQ(static_cast<bool>(GetBitmapById(id)), loads) << damaged.what;
    EXPECT_TRUE(Finds(file, test::BitmapName(kBeside))) << "beside: " << damaged.what;
  }

  void ExpectFiles(FileId file, const Damaged& damaged, BitmapId id) {
    const End end = ExpectedEnd(damaged);
    const std::filesystem::path path = DamagedPath(file, damaged);
    EXPECT_EQ(std::filesystem::exists(path), end != End::kDeleted) << damaged.what;
    if (end != End::kDeleted) {
      EXPECT_EQ(DifferenceBetween(FirstBytes(path, damaged.bytes.size()),
                                  ExpectedBytes(damaged, id, end)),
                "nowhere")
          << damaged.what;
    }
    EXPECT_EQ(
        DifferenceBetween(ReadFileBytes(DirectoryOf({kVolume, file}) / test::BitmapName(kBeside)),
                          Good(file)),
        "nowhere")
        << "beside: " << damaged.what;
    EXPECT_TRUE(ReadFileBytes(DirectoryOf({kVolume, file + kUntouched}) /
                              test::BitmapName(kCreated)) == Good(file))
        << "not looked up: " << damaged.what;
  }

  Corpus corpus_;
  std::vector<BitmapId> ids_;
};

TEST_F(DamagedBitmapsTest, EachEndsAsItsBytesDemandAndNoGoodBitmapIsTouched) {
  ASSERT_GE(corpus_.files().size(), 200u);
  WriteCorpus();
  const std::size_t files = corpus_.files().size();
  const std::filesystem::path closed = DirectoryOf({kVolume, kClosed}) / test::BitmapName(kCreated);
  UniqueFile holder = test::HoldFile(closed);

  InitBitmapManager();
  EXPECT_EQ(ListAllBitmaps().size(), 2 * files + 2);
  for (FileId file = 1; file <= files; ++file) {
    ExpectLookups(file, corpus_.files()[file - 1], ids_[file - 1]);
  }
  EXPECT_EQ(FindBitmapsForFile(kVolume, kDirectory).size(), 1u);
  EXPECT_TRUE(FindBitmapsForFile(kVolume, kClosed).empty());
  holder.reset();
  EXPECT_TRUE(Finds(kClosed, test::BitmapName(kCreated)));  // no damage at all

  BitmapIdleTimeout = 0;
  UnloadIdleBitmaps();
  EXPECT_FALSE(ListAllBitmaps().empty());
  for (FileId file = 1; file <= files; ++file) {
    ExpectLookups(file, corpus_.files()[file - 1], ids_[file - 1]);
  }
  ShutdownBitmapManager();
  for (FileId file = 1; file <= files; ++file) {
    ExpectFiles(file, corpus_.files()[file - 1], ids_[file - 1]);
  }
  EXPECT_EQ(DifferenceBetween(ReadFileBytes(closed), Good(kClosed)), "nowhere");
}

}  // namespace
}  // namespace zel
