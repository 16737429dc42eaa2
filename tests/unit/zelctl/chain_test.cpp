// Chains of copies whatever happens: rounds that are skipped, refused, killed, repeated and
// reordered, over several copies. After every run that ended well the copy is what it says it is.
#include <gmock/gmock.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "tests/unit/support/played_service.h"
#include "tests/unit/support/tool_fixture.h"
#include "zelctl/id_text.h"
#include "zelctl/time_text.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::Bytes;
using test::MemoryFile;
using test::PlayedService;
using Words = std::vector<std::string>;

constexpr char kLive[] = "C:\\live";

// One file, its service, copies and what lies about: bitmaps that somebody noted, exports,
// snapshots.
class World {
 public:
  explicit World(unsigned seed) : random_(seed), service_(machine_, kLive, random_) {
    machine_.volume = test::kVolume;
    machine_.now = 1000;
    service_.Write(0, 300 + random_() % 400);
  }

  void Round() {
    const int steps = 1 + Number(4);
    for (int i = 0; i < steps; ++i) Step();
  }

  [[nodiscard]] int good_runs() const { return good_runs_; }
  [[nodiscard]] int deaths() const { return deaths_; }
  [[nodiscard]] int refusals() const { return refusals_; }
  [[nodiscard]] const std::string& story() const { return story_; }

 private:
  [[nodiscard]] int Number(int below) { return static_cast<int>(random_() % below); }
  template <class T>
  [[nodiscard]] const T& AnyOf(const std::vector<T>& things) {
    return things[random_() % things.size()];
  }
  [[nodiscard]] std::string Copy() { return AnyOf(copies_); }

  void Step() {
    // Several things may happen in one step of the clock.
    machine_.now += Number(3);
    switch (Number(24)) {
      case 0:
      case 1:
      case 2:
      case 3:
      case 4:
        return ChangeFile();
      case 5:
        return Track();
      case 6:
      case 7:
        return Apply();
      case 8:
        return ApplyExport();
      case 9:
        return Export();
      case 10:
        return Full();
      case 11:
        return Snapshot();
      case 12:
        return ApplySnapshot();
      case 13:
        return Rename();
      case 14:
        return Meddle();
      case 15:
        return Delete();
      case 16:
        return Damage();
      case 17:
        return service_.DeliverSome();
      case 18:
        if (Number(6) == 0) service_.Crash();
        return;
      default:
        return Backup();
    }
  }

  void ChangeFile() {
    const std::uint64_t size = service_.Live().bytes.size();
    if (Number(6) == 0) return service_.Resize(1 + random_() % (size + 100));
    service_.Write(random_() % size, 1 + random_() % 60);
  }
  void Track() {
    BitmapEntry bitmap;
    if (service_.StartTracking(kLive, BlockSize(), bitmap).ok()) noted_.push_back(bitmap.id);
  }
  std::uint32_t BlockSize() { return AnyOf(std::vector<std::uint32_t>{7, 16, 64, 256}); }
  [[nodiscard]] std::string NotedBitmap() { return FormatId(noted_.empty() ? 1 : AnyOf(noted_)); }
  void Delete() {
    if (noted_.empty()) return;
    const std::size_t which = random_() % noted_.size();
    (void)service_.DeleteBitmap(noted_[which]);
    if (Number(2) == 0) noted_.erase(noted_.begin() + static_cast<long>(which));
  }
  void Export() {
    exports_.push_back("X:\\export " + std::to_string(exports_.size()));
    Words words = {"export", NotedBitmap(), "-o", exports_.back()};
    if (Number(4) == 0) words.emplace_back("--no-sync");
    if (Run(words).exit_code != 0) exports_.pop_back();
  }
  // Somebody sees it later, or nobody does.
  void Damage() {
    if (exports_.empty()) return;
    Bytes& bytes = machine_.At(AnyOf(exports_)).bytes;
    bytes[random_() % bytes.size()] ^= static_cast<std::byte>(1 + random_() % 255);
  }
  void Snapshot() {
    Words& snapshot = snapshots_.emplace_back();
    const FileTime time = machine_.now++;
    snapshot = {"S:\\" + std::to_string(snapshots_.size()), std::to_string(time)};
    machine_.At(snapshot[0]).bytes = service_.Live().bytes;
  }

  void Apply() {
    Words words = {"apply", "--bitmap", NotedBitmap(), "--from", kLive, "--to", Copy()};
    if (Number(6) == 0) words.emplace_back("--no-sync");
    Judge(words, kLive);
  }
  void ApplyExport() {
    if (exports_.empty()) return;
    Judge({"apply", "--bitmap", AnyOf(exports_), "--from", kLive, "--to", Copy()}, kLive);
  }
  void ApplySnapshot() {
    if (snapshots_.empty()) return;
    const Words snapshot = Number(2) == 0 ? snapshots_.back() : AnyOf(snapshots_);
    const std::string bitmap = exports_.empty() || Number(2) == 0 ? NotedBitmap() : AnyOf(exports_);
    Words words = {"apply", "--bitmap",        bitmap,      "--from",          snapshot[0], "--to",
                   Copy(),  "--snapshot-time", snapshot[1], "--force-identity"};
    if (Number(6) == 0) words.insert(words.end(), {"--full", "--replace"});
    Judge(words, snapshot[0]);
  }
  void Full() {
    Words words = {"apply", "--full", "--from", kLive, "--to", Copy()};
    if (Number(2) == 0) words.emplace_back("--replace");
    if (Number(3) == 0) InterruptReadingBy([this] { Interfere(); });
    Judge(words, kLive);
  }
  void Backup() {
    Words words = {
        "backup", "--from", kLive, "--to", Copy(), "--block-size", std::to_string(BlockSize())};
    if (Number(2) == 0) words.emplace_back("--full-if-needed");
    if (Number(4) == 0) words.emplace_back("--replace");
    if (Number(3) == 0) words.emplace_back("--verify");
    if (Number(4) == 0) InterruptReadingBy([this] { Interfere(); });
    Judge(words, kLive);
  }

  // While the file is read.
  void InterruptReadingBy(std::function<void()> action) {
    service_.Live().after_read = [this, action](MemoryFile& file) {
      file.after_read = {};
      const test::Death death = std::exchange(machine_.death, {});
      action();
      machine_.death = death;
    };
  }
  void Interfere() {
    if (Number(2) == 0) {
      const std::uint64_t size = service_.Live().bytes.size();
      machine_.now += Number(3);
      return service_.Write(random_() % size, std::min<std::uint64_t>(size, 1 + random_() % 20));
    }
    Words words = {"apply", "--bitmap", NotedBitmap(), "--from", kLive, "--to", Copy()};
    if (Number(2) == 0) words = {"apply", "--full", "--replace", "--from", kLive, "--to", Copy()};
    Judge(words, kLive, false);
  }

  void Rename() {
    const std::string one = Copy();
    const std::string other = Copy();
    if (machine_.files.contains(one) && machine_.files[one]->is_being_written) return;
    if (Number(3) == 0 && machine_.files.contains(one)) {
      machine_.files[other] = machine_.files[one];  // a hard link
    } else {
      std::swap(machine_.files[one], machine_.files[other]);
    }
    std::erase_if(machine_.files, [](const auto& file) { return file.second == nullptr; });
  }
  // Later than what a run that died may have written itself.
  void Meddle() {
    const std::string path = Copy();
    if (!machine_.files.contains(path)) return;
    MemoryFile& copy = machine_.At(path);
    if (Number(4) == 0) {
      machine_.files.erase(path);
    } else if (copy.bytes.size() > 0) {
      copy.bytes[random_() % copy.bytes.size()] ^= std::byte{1};
      copy.written += 1'000'000'000;
    }
  }

  struct Ended {
    int exit_code;
    ordered_json json;
  };
  Ended Run(Words words) {
    words.emplace_back("--json");
    test::RecordedTerminal terminal;
    const auto connect = [this](const Request&) {
      return std::make_unique<test::BorrowedServer>(service_);
    };
    const ExitCode code = RunTool(words, connect, machine_, terminal);
    story_ += std::to_string(machine_.now) + ":";
    for (const std::string& word : words) story_ += " " + word;
    story_ += " -> " + terminal.printed;
    return {static_cast<int>(code), ordered_json::parse(terminal.printed, nullptr, false)};
  }

  // Runs it, perhaps to its death, and looks at what it says that the copy is.
  void Judge(const Words& words, const std::string& source, bool may_die = true) {
    if (may_die && Number(3) == 0) machine_.death = {.changes = 0, .fail_at = Number(40)};
    const Ended ended = Run(words);
    const bool died = machine_.death.has_struck();
    machine_.death = {};
    if (may_die) service_.Live().after_read = {};
    if (died) ++deaths_;
    if (ended.exit_code != 0) {
      ++refusals_;
      return;
    }
    if (died || !ended.json.contains("as_of")) return;
    ++good_runs_;
    const std::string copy = ended.json["copy"];
    const FileTime as_of = ParseTime(ended.json["as_of"].get<std::string>(), 0).value_or(0);
    if (source == kLive) {
      ExpectGood(machine_.At(copy).bytes, as_of);
    } else {
      ASSERT_EQ(machine_.At(copy).bytes, machine_.At(source).bytes);
    }
  }

  // Each byte is one that the file had then or later; all are those of one moment when nothing was
  // written since.
  void ExpectGood(const Bytes& copy, FileTime as_of) {
    std::size_t first = 0;
    for (std::size_t i = 0; i < service_.history.size(); ++i) {
      if (service_.history[i].first <= as_of) first = i;
    }
    if (first + 1 == service_.history.size()) {
      ASSERT_EQ(copy, service_.history.back().second) << "nothing was written since " << as_of;
      return;
    }
    for (std::size_t at = 0; at < copy.size(); ++at) {
      bool is_known = false;
      for (std::size_t i = first; i < service_.history.size(); ++i) {
        const Bytes& bytes = service_.history[i].second;
        is_known |= at < bytes.size() ? bytes[at] == copy[at] : copy[at] == std::byte{0};
      }
      ASSERT_TRUE(is_known) << "byte " << at << " is older than " << as_of;
    }
  }

  std::mt19937 random_;
  test::MemoryMachine machine_;
  PlayedService service_;
  std::vector<std::string> copies_ = {"D:\\one", "D:\\two", "D:\\three"};
  std::vector<BitmapId> noted_;
  std::vector<std::string> exports_;
  std::vector<Words> snapshots_;  // path and time
  int good_runs_ = 0;
  int deaths_ = 0;
  int refusals_ = 0;
  std::string story_;
};

int RoundsWanted() {
  const char* const wanted = std::getenv("ZEL_CHAIN_ROUNDS");
  return wanted != nullptr ? std::atoi(wanted) : 1000;
}

TEST(ChainTest, CopyIsWhatItSaysAfterEveryRunThatEndedWell) {
  constexpr int kRoundsOfAWorld = 50;
  int good_runs = 0;
  int deaths = 0;
  int refusals = 0;
  const int worlds = RoundsWanted() / kRoundsOfAWorld;
  for (int seed = 0; seed < worlds; ++seed) {
    World world(static_cast<unsigned>(seed));
    for (int round = 0; round < kRoundsOfAWorld; ++round) {
      world.Round();
      ASSERT_FALSE(HasFatalFailure()) << "seed " << seed << "\n" << world.story();
    }
    good_runs += world.good_runs();
    deaths += world.deaths();
    refusals += world.refusals();
  }
  std::printf("%d good runs, %d refused, %d died\n", good_runs, refusals, deaths);
  EXPECT_GT(good_runs, worlds * 10);
  EXPECT_GT(deaths, worlds);
  EXPECT_GT(refusals, worlds * 10);
}

}  // namespace
}  // namespace zel::ctl
