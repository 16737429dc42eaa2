// Random histories through the service's modules in a process of their own, the simulated driver
// and its port, against the model that knows nothing of how bits are computed: a change that the
// driver reported is in every bitmap of its file, or that bitmap says that it cannot be trusted;
// and no other bit is set, no bitmap distrusted without a reason, none lost and none left.
//
// ZEL_MODEL_SEED in the environment runs the history of that seed alone.
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <vector>

#include "tests/integration/support/module_host.h"
#include "tests/integration/support/simulated_driver.h"
#include "tests/integration/support/temp_directory.h"
#include "tests/unit/support/change_model.h"

namespace zel::test {
namespace {

constexpr int kHistories = 200;
constexpr int kSteps = 18;
constexpr std::size_t kFiles = 3;
constexpr std::size_t kBitmapsOfAFile = 3;

// All ones in a bitmap's name count as no block size: such a bitmap is never loaded.
constexpr std::uint32_t kLargestBlockSize = 0xFFFFFFFE;

constexpr std::size_t kHeaderBytes = 512;
constexpr std::size_t kAtSizeChanged = 0x3E;
constexpr std::size_t kAtUnreliable = 0x3F;

struct Report {
  sim::MessageType type;
  std::uint64_t offset_or_size;
  std::uint32_t length;
  bool own = false;  // by the process of the modules themselves
};

void Apply(const Report& report, Expected certainty, ModelBitmap& bitmap) {
  if (report.type == sim::MessageType::kWrite) {
    bitmap.Write(report.offset_or_size, report.length, certainty);
  } else if (report.type == sim::MessageType::kSizeChanged) {
    bitmap.Resize(report.offset_or_size, certainty);
  }
}

// One bitmap: what it says, and whether a kill finds it loaded.
struct TrackedBitmap {
  ModelBitmap model;
  Expected loaded = Expected::kClear;
  bool reported_since_unload = false;  // its messages load it, once they are processed

  // Behind a message on its way.
  void WillLoad() {
    reported_since_unload = true;
    Raise(loaded, Expected::kEither);
  }
  void Unload(bool messages_are_under_way) {
    loaded = messages_are_under_way ? Expected::kEither : Expected::kClear;
    reported_since_unload = false;
  }
};

struct TrackedFile {
  bool tracked = false;
  std::uint64_t size = 0;
  std::map<std::uint64_t, TrackedBitmap> bitmaps;  // by their ids
  // Deleted ones that a message may have held, so that they wait for the next scan; a kill before
  // it leaves them, unreliable.
  std::set<std::uint64_t> discarded;
  std::set<std::uint64_t> left;
  // Since the last synchronization; a bitmap that is made meanwhile may get them or not.
  std::vector<Report> reports;
  bool lost_changes = false;

  [[nodiscard]] bool MessagesAreUnderWay() const { return !reports.empty() || lost_changes; }
};

// What the histories had in them, all together.
struct Counts {
  int kills_of_loaded = 0;
  int losses = 0;
  int trusted_with_bits = 0;
  int unreliable = 0;
};

class History {
 public:
  History(unsigned seed, SimulatedDriver& driver, std::optional<ModuleHost>& host,
          const std::filesystem::path& directory, Counts& counts)
      : random_(seed), driver_(driver), host_(host), directory_(directory), counts_(counts) {}

  void Run() {
    for (int step = 0; step < kSteps && !::testing::Test::HasFailure(); ++step) Step();
    Check();
    for (auto& [id, file] : files_) Untrack(id, file);
    Unload();
    CheckBitmaps();
  }

  // For the one who has to explain a failure.
  [[nodiscard]] std::string told() const { return told_.str(); }

 private:
  void Step() {
    const std::uint64_t id = 1 + random_() % kFiles;
    TrackedFile& file = files_[id];
    if (!file.tracked) return Track(id, file);
    switch (random_() % 32) {
      case 0:
        return Untrack(id, file);
      case 1:
      case 2:
      case 3:
        return Create(id, file);
      case 4:
        return Restart();
      case 5:
      case 6:
        return Kill();
      case 7:
        return Lose(id, file, "drop");
      case 8:
        return Lose(id, file, "corrupt " + AnyDamage());
      case 9:
        Lose(id, file, "limit 0");
        return Order("limit 100000");
      case 10:
        Order("duplicate 1");
        break;
      case 11:
        return Order("delay " + std::to_string(random_() % 20));
      case 12:
        return Order(random_() % 2 == 0 ? "hold" : "release");
      case 13:
        return Order("reorder");
      case 14:
        return Unload();
      case 15:
        return Synchronize();
      case 16:
      case 17:
        return Check();
      default:
        break;
    }
    Send(id, file, AnyReport());
  }

  std::string AnyDamage() {
    constexpr const char* kDamages[] = {"magic", "type", "short"};
    return kDamages[random_() % 3];
  }

  Report AnyReport() {
    using Type = sim::MessageType;
    constexpr Type kOthers[] = {Type::kOpened, Type::kClosed, Type::kRenamed, Type::kVerify};
    switch (random_() % 16) {
      case 0:
        return {kOthers[random_() % 4], 0, 0};
      case 1:
      case 2:
      case 3:
      case 4:
        return {Type::kSizeChanged, random_.Size(), 0};
      case 5:
        // The service's own: ignored, unless the next service gets it from this one.
        return {Type::kWrite, random_.Offset(), random_.Length(), true};
      default:
        return {Type::kWrite, random_.Offset(), random_.Length()};
    }
  }

  void Track(std::uint64_t id, TrackedFile& file) {
    Ask("track " + std::to_string(id), "0");
    file.tracked = true;
    file.size = random_.Size();
    Create(id, file);
  }

  void Untrack(std::uint64_t id, TrackedFile& file) {
    Ask("untrack " + std::to_string(id), "0");
    file.tracked = false;
    for (const auto& [bitmap_id, bitmap] : file.bitmaps) file.discarded.insert(bitmap_id);
    file.discarded.merge(file.left);
    file.bitmaps.clear();
  }

  void Create(std::uint64_t id, TrackedFile& file) {
    if (file.bitmaps.size() == kBitmapsOfAFile) return;
    const auto bytes = random_() % 9;
    const std::uint32_t block_size = std::min(random_.BlockSize(), kLargestBlockSize);
    std::ostringstream order;
    order << "create " << id << ' ' << bytes << ' ' << block_size << ' ' << file.size;
    const std::string answer = Ask(order.str());
    std::uint64_t bitmap_id = 0;
    ASSERT_TRUE(sim::ParseNumber(answer, bitmap_id)) << answer;
    TrackedBitmap bitmap = {{file.size, block_size, static_cast<std::size_t>(bytes * 8)}};
    for (const Report& report : file.reports) Apply(report, Expected::kEither, bitmap.model);
    if (file.lost_changes) bitmap.model.unreliable = Expected::kEither;
    bitmap.Unload(file.MessagesAreUnderWay());
    ASSERT_TRUE(file.bitmaps.emplace(bitmap_id, bitmap).second) << bitmap_id << " exists";
    file.discarded.erase(bitmap_id);  // the system gives numbers again
  }

  void Send(std::uint64_t id, TrackedFile& file, const Report& report) {
    Tell(id, report);
    if (report.type == sim::MessageType::kSizeChanged) file.size = report.offset_or_size;
    file.reports.push_back(report);
    if (!IsChange(report) || report.own) return;
    for (auto& [bitmap_id, bitmap] : file.bitmaps) {
      Apply(report, Expected::kSet, bitmap.model);
      bitmap.WillLoad();
    }
  }

  static bool IsChange(const Report& report) {
    return report.type == sim::MessageType::kWrite || report.type == sim::MessageType::kSizeChanged;
  }

  // A report that the service does not get; the driver will tell it so.
  void Lose(std::uint64_t id, TrackedFile& file, const std::string& how) {
    Order(how);
    Tell(id, AnyReport());
    ++counts_.losses;
    file.lost_changes = true;
    for (auto& [bitmap_id, bitmap] : file.bitmaps) {
      bitmap.model.unreliable = Expected::kSet;
      bitmap.WillLoad();
    }
  }

  void Tell(std::uint64_t id, const Report& report) {
    std::ostringstream order;
    order << WordOf(report.type) << ' ' << sim::VolumeText(kHostVolume) << ' ' << id;
    if (IsChange(report)) order << ' ' << report.offset_or_size;
    if (report.type == sim::MessageType::kWrite) order << ' ' << report.length;
    order << ' ' << (report.own ? host_->id() : kSomebody);
    Order(order.str());
  }

  static const char* WordOf(sim::MessageType type) {
    switch (type) {
      case sim::MessageType::kWrite:
        return "write";
      case sim::MessageType::kSizeChanged:
        return "size";
      case sim::MessageType::kOpened:
        return "open";
      case sim::MessageType::kClosed:
        return "close";
      case sim::MessageType::kRenamed:
        return "rename";
      default:
        return "verify";
    }
  }

  void Restart() {
    told_ << "restart\n";
    host_->Stop();
    for (auto& [id, file] : files_) file.discarded.clear();
    StartAgain();
  }

  // Now and then while a synchronization waits.
  void Kill() {
    told_ << "kill\n";
    if (random_() % 4 == 0) host_->Send("sync");
    host_->Kill();
    for (auto& [id, file] : files_) file.left.merge(file.discarded);
    ForEachBitmap([this](const TrackedFile&, TrackedBitmap& bitmap) {
      Raise(bitmap.model.unreliable, bitmap.loaded);
      counts_.kills_of_loaded += bitmap.loaded == Expected::kSet;
    });
    StartAgain();
  }

  // The next host gets what the one before has not processed, and is another process to it.
  void StartAgain() {
    host_.emplace(directory_);
    ForEachBitmap([](const TrackedFile& file, TrackedBitmap& bitmap) {
      for (const Report& report : file.reports) {
        if (report.own) Apply(report, Expected::kEither, bitmap.model);
      }
      bitmap.Unload(file.MessagesAreUnderWay());
    });
  }

  void Unload() {
    Ask("unload", "0");
    ForEachBitmap([](const TrackedFile& file, TrackedBitmap& bitmap) {
      bitmap.Unload(file.MessagesAreUnderWay());
    });
  }

  // Held messages are released while it waits.
  void Synchronize() {
    told_ << "host: sync\n";
    host_->Send("sync");
    Order("release");
    ASSERT_EQ(host_->Answer(), "0");
    ForEachBitmap([](const TrackedFile&, TrackedBitmap& bitmap) {
      if (bitmap.reported_since_unload) bitmap.loaded = Expected::kSet;
    });
    for (auto& [id, file] : files_) {
      file.reports.clear();
      file.lost_changes = false;
    }
  }

  // Everything that was reported is to be in the bitmaps behind a synchronization.
  void Check() {
    if (::testing::Test::HasFailure()) return;
    Synchronize();
    CheckBitmaps();
    // So that not every kill finds every bitmap loaded.
    if (random_() % 2 == 0) Unload();
  }

  void CheckBitmaps() {
    std::size_t expected = 0;
    ForEachBitmap([&](const TrackedFile&, TrackedBitmap&) { ++expected; });
    std::istringstream listed(Ask("bitmaps"));
    std::uint64_t file_id = 0;
    std::uint64_t bitmap_id = 0;
    for (std::string contents; listed >> file_id >> bitmap_id >> contents;) {
      SCOPED_TRACE("bitmap " + std::to_string(bitmap_id));
      sim::Bytes bytes;
      ASSERT_TRUE(sim::ParseBytes(contents, bytes) && bytes.size() >= kHeaderBytes) << contents;
      TrackedFile& file = files_[file_id];
      const auto bitmap = file.bitmaps.find(bitmap_id);
      if (bitmap == file.bitmaps.end()) {
        ASSERT_TRUE(file.left.contains(bitmap_id) && bytes[kAtUnreliable] != std::byte{})
            << "is left";
        continue;
      }
      bitmap->second.loaded = Expected::kSet;  // by its copy
      CheckBitmap(bitmap->second.model, bytes);
      --expected;
    }
    EXPECT_EQ(expected, 0u) << "bitmaps are lost";
  }

  void CheckBitmap(ModelBitmap& model, const sim::Bytes& bytes) {
    ASSERT_EQ(bytes.size(), kHeaderBytes + model.bits() / 8);
    const bool unreliable = bytes[kAtUnreliable] != std::byte{};
    ASSERT_TRUE(Agrees(model.unreliable, unreliable)) << "unreliable is " << unreliable;
    counts_.unreliable += unreliable;
    // It stays what it is now seen to be.
    model.unreliable = unreliable ? Expected::kSet : Expected::kClear;
    const bool size_changed = bytes[kAtSizeChanged] != std::byte{};
    ASSERT_TRUE(Agrees(model.size_changed, size_changed)) << "size changed is " << size_changed;
    bool any = false;
    for (std::size_t bit = 0; bit < model.bits(); ++bit) {
      const bool is_set =
          (std::to_integer<unsigned>(bytes[kHeaderBytes + bit / 8]) >> bit % 8 & 1) != 0;
      ASSERT_TRUE(Agrees(model.bit(bit), is_set)) << "bit " << bit << " is " << is_set;
      any = any || is_set;
    }
    counts_.trusted_with_bits += any && !unreliable;
  }

  template <class Action>
  void ForEachBitmap(Action action) {
    for (auto& [file_id, file] : files_) {
      for (auto& [bitmap_id, bitmap] : file.bitmaps) action(file, bitmap);
    }
  }

  void Order(const std::string& order) {
    told_ << "driver: " << order << '\n';
    driver_.Order(order);
  }
  std::string Ask(const std::string& order) {
    told_ << "host: " << order << '\n';
    return host_->Ask(order);
  }
  void Ask(const std::string& order, const char* answer) { EXPECT_EQ(Ask(order), answer) << order; }

  static constexpr DWORD kSomebody = 0;  // no process of the machine

  RandomReports random_;
  SimulatedDriver& driver_;
  std::optional<ModuleHost>& host_;
  const std::filesystem::path& directory_;
  Counts& counts_;
  std::map<std::uint64_t, TrackedFile> files_;
  std::ostringstream told_;
};

TEST(ChangeModelTest, TwoHundredRandomHistoriesThroughTheModulesAgreeWithTheModel) {
  const TempDirectory directory;
  std::filesystem::create_directories(directory.path() / "cbt");
  SimulatedDriver driver;
  std::optional<ModuleHost> host;
  host.emplace(directory.path());
  Counts counts;
  const char* const one_seed = std::getenv("ZEL_MODEL_SEED");
  const auto first = one_seed != nullptr ? static_cast<unsigned>(std::atoi(one_seed)) : 0;
  const unsigned end = one_seed != nullptr ? first + 1 : kHistories;
  for (unsigned seed = first; seed != end && !HasFailure(); ++seed) {
    SCOPED_TRACE("ZEL_MODEL_SEED=" + std::to_string(seed));
    History history(seed, driver, host, directory.path(), counts);
    history.Run();
    if (HasFailure()) ADD_FAILURE() << history.told();
  }
  host->Stop();
  if (one_seed != nullptr) return;
  // Else the histories would prove little.
  EXPECT_GT(counts.kills_of_loaded, 50);
  EXPECT_GT(counts.losses, 100);
  EXPECT_GT(counts.trusted_with_bits, 100);
  EXPECT_GT(counts.unreliable, 100);
  EXPECT_GT(driver.Counter("forgotten"), 0u);
}

}  // namespace
}  // namespace zel::test
