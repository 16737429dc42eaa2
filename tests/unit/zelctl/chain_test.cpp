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

// How often what has happened.
struct Counts {
  int good_runs = 0;
  int refusals = 0;
  int deaths = 0;
  std::map<std::string, int> runs;     // that ended well, by what they did
  std::map<std::string, int> reasons;  // of those that did not
};

// One file, its service, copies and what lies about: bitmaps that somebody noted, exports, bitmap
// files as the service closed them, snapshots, copies that somebody else has made.
class World {
 public:
  World(unsigned seed, Counts& counts)
      : random_(seed), service_(machine_, kLive, random_), counts_(counts) {
    machine_.volume = test::kVolume;
    machine_.now = 1000;
    service_.Write(0, 300 + random_() % 400);
  }

  void Round() {
    const int steps = 1 + Number(4);
    for (int i = 0; i < steps; ++i) Step();
  }

  [[nodiscard]] const std::string& story() const { return story_; }

 private:
  [[nodiscard]] int Number(int below) { return static_cast<int>(random_() % below); }
  template <class T>
  [[nodiscard]] const T& AnyOf(const std::vector<T>& things) {
    return things[random_() % things.size()];
  }
  // Often the one that something has just happened to.
  [[nodiscard]] std::string Copy() { return Number(3) == 0 ? last_copy_ : AnyOf(copies_); }

  void Step() {
    // Several things may happen in one step of the clock.
    machine_.now += Number(3);
    static const std::vector<void (World::*)()> kSteps = {
        &World::ChangeFile,    &World::ChangeFile, &World::ChangeFile,  &World::ChangeFile,
        &World::ChangeFile,    &World::ChangeFile, &World::Track,       &World::Apply,
        &World::Apply,         &World::Apply,      &World::ApplyExport, &World::Export,
        &World::CloseBitmap,   &World::Full,       &World::Snapshot,    &World::ApplySnapshot,
        &World::ApplySnapshot, &World::Repeat,     &World::Rename,      &World::Meddle,
        &World::Delete,        &World::Damage,     &World::CopyByHand,  &World::ApplyAsOf,
        &World::Deliver,       &World::MaybeCrash, &World::Verify,      &World::Swap,
        &World::Backup,        &World::Backup,     &World::Backup,      &World::Backup,
        &World::Backup};
    (this->*AnyOf(kSteps))();
  }

  void ChangeFile() {
    const std::uint64_t size = service_.Live().bytes.size();
    if (Number(6) == 0) return service_.Resize(1 + random_() % (size + 100));
    service_.Write(random_() % size, 1 + random_() % 60);
  }
  void Deliver() { service_.DeliverSome(); }
  void MaybeCrash() {
    if (Number(6) == 0) service_.Crash();
  }

  void Track() {
    BitmapEntry bitmap;
    if (service_.StartTracking(kLive, BlockSize(), bitmap).ok()) noted_.push_back(bitmap.id);
  }
  std::uint32_t BlockSize() { return AnyOf(std::vector<std::uint32_t>{7, 16, 64, 256}); }
  [[nodiscard]] BitmapId Noted() { return noted_.empty() ? 1 : AnyOf(noted_); }
  [[nodiscard]] std::string NotedBitmap() { return FormatId(Noted()); }
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
  // What somebody finds in the service's folder, mostly while the service does not run.
  void CloseBitmap() {
    const auto bitmap = service_.bitmaps.find(Noted());
    if (bitmap == service_.bitmaps.end()) return;
    closed_.push_back("X:\\closed " + std::to_string(closed_.size()));
    Bytes& bytes = machine_.At(closed_.back()).bytes = bitmap->second;
    if (Number(3) > 0) return;
    test::ChangeHeader(bytes, [](BitmapFileHeader& header) { header.ClosedCleanly = 0; });
  }
  [[nodiscard]] std::string BitmapFile() {
    if (exports_.empty() && closed_.empty()) return NotedBitmap();
    if (closed_.empty() || (!exports_.empty() && Number(3) > 0)) return AnyOf(exports_);
    return AnyOf(closed_);
  }
  // Somebody sees it later, or nobody does.
  void Damage() {
    switch (Number(3)) {
      case 0:
        return exports_.empty() ? void() : DamageAnyByte(machine_.At(AnyOf(exports_)).bytes);
      case 1:
        return closed_.empty() ? void() : DamageHeader(machine_.At(AnyOf(closed_)).bytes);
      default:
        const auto record = machine_.files.find(RecordPath(Copy()));
        return record == machine_.files.end() ? void() : DamageAnyByte(record->second->bytes);
    }
  }
  void DamageAnyByte(Bytes& bytes) {
    bytes[random_() % bytes.size()] ^= static_cast<std::byte>(1 + random_() % 255);
  }
  // A file without a checksum shows what does not fit together, and no more.
  void DamageHeader(Bytes& bytes) {
    if (bytes.size() < kBitmapHeaderSize) return;
    if (Number(5) == 0) return bytes.resize(random_() % bytes.size());
    test::ChangeHeader(bytes, [which = Number(4)](BitmapFileHeader& header) {
      if (which == 0) header.Unreliable = 1;
      if (which == 1) ++header.BitmapSize;
      if (which == 2) --header.NameCreationTime;
      if (which == 3) header.BlockSize = 0;
    });
  }

  void Snapshot() {
    Words& snapshot = snapshots_.emplace_back();
    const FileTime time = machine_.now++;
    snapshot = {"S:\\" + std::to_string(snapshots_.size()), std::to_string(time)};
    machine_.At(snapshot[0]).bytes = service_.Live().bytes;
  }
  // By other means, so that nobody but whoever did it knows as of when.
  void CopyByHand() {
    const std::string path = Copy();
    if (Number(3) > 0 || IsBeingWritten(path)) return;
    machine_.files.erase(path);
    test::MemoryFile& copy = machine_.At(path);
    copy.bytes = service_.Live().bytes;
    made_by_hand_[copy.id] = machine_.now++;
  }

  void Apply() {
    Words words = {"apply", "--bitmap", NotedBitmap(), "--from", kLive, "--to", Copy()};
    if (Number(6) == 0) words.emplace_back("--no-sync");
    if (Number(6) == 0) words.emplace_back("--verify");
    if (Number(4) == 0) InterruptReading();
    Judge(words, kLive);
  }
  void ApplyExport() { ApplyExportTo(Copy()); }
  void ApplyExportTo(const std::string& copy) {
    Judge({"apply", "--bitmap", BitmapFile(), "--from", kLive, "--to", copy}, kLive);
  }
  void ApplySnapshot() {
    if (snapshots_.empty()) return;
    const Words snapshot = Number(2) == 0 ? snapshots_.back() : AnyOf(snapshots_);
    const std::string bitmap = Number(2) == 0 ? NotedBitmap() : BitmapFile();
    Words words = {"apply", "--bitmap",        bitmap,      "--from",          snapshot[0], "--to",
                   Copy(),  "--snapshot-time", snapshot[1], "--force-identity"};
    if (Number(6) == 0) words.insert(words.end(), {"--full", "--replace"});
    Judge(words, snapshot[0]);
  }
  void ApplyAsOf() {
    const std::string path = Copy();
    if (!machine_.files.contains(path) || !made_by_hand_.contains(machine_.At(path).id)) return;
    const FileTime time = made_by_hand_[machine_.At(path).id];
    const std::string bitmap = Number(2) == 0 ? NotedBitmap() : BitmapFile();
    Judge({"apply", "--bitmap", bitmap, "--from", kLive, "--to", path, "--as-of",
           std::to_string(time)},
          kLive);
  }
  void Full() {
    Words words = {"apply", "--full", "--from", kLive, "--to", Copy()};
    if (Number(2) == 0) words.emplace_back("--replace");
    if (Number(3) == 0) InterruptReading();
    Judge(words, kLive);
  }
  void Backup() {
    Words words = {
        "backup", "--from", kLive, "--to", Copy(), "--block-size", std::to_string(BlockSize())};
    if (Number(2) == 0) words.emplace_back("--full-if-needed");
    if (Number(4) == 0) words.emplace_back("--replace");
    if (Number(3) == 0) words.emplace_back("--verify");
    if (Number(4) == 0) InterruptReading();
    Judge(words, kLive);
  }
  void Repeat() {
    const auto [words, source] = last_;
    // What was true of one file need not be true of another that has its name now.
    if (words.empty() || std::ranges::find(words, "--as-of") != words.end()) return;
    Judge(words, source);
  }
  void Verify() {
    const std::string copy = Copy();
    if (Run({"verify", "--from", kLive, "--to", copy}).exit_code == 0) {
      ASSERT_EQ(machine_.At(copy).bytes, service_.Live().bytes);
    }
  }

  // The copy for the file.
  void Swap() {
    const Bytes before = service_.Live().bytes;
    Words words = {"apply", "--from", Copy(), "--to", kLive};
    if (Number(2) == 0) {
      words.emplace_back("--full");
    } else {
      words.insert(words.end(), {"--bitmap", NotedBitmap(), "--force-identity", "--snapshot-time",
                                 std::to_string(machine_.now)});
    }
    const Ended ended = Run(words);
    ASSERT_NE(ended.exit_code, 0);
    ASSERT_EQ(service_.Live().bytes, before);
    CountRefusal(ended, false);
  }

  // While the file is read.
  void InterruptReading() {
    service_.Live().after_read = [this](MemoryFile& file) {
      file.after_read = {};
      const test::Death death = std::exchange(machine_.death, {});
      const bool is_away = std::exchange(service_.is_away, false);
      Interfere();
      machine_.death = death;
      service_.is_away = is_away;
    };
  }
  void Interfere() {
    machine_.now += Number(3);
    switch (Number(8)) {
      case 0:
      case 1:
      case 2: {
        const std::uint64_t size = service_.Live().bytes.size();
        return service_.Write(random_() % size, std::min<std::uint64_t>(size, 1 + random_() % 20));
      }
      case 3:
        return Judge({"apply", "--full", "--replace", "--from", kLive, "--to", Copy()}, kLive,
                     false);
      case 4:
        return service_.Crash();
      case 5:
        return Delete();
      default:
        return Judge({"apply", "--bitmap", NotedBitmap(), "--from", kLive, "--to", Copy()}, kLive,
                     false);
    }
  }

  [[nodiscard]] bool IsBeingWritten(const std::string& path) {
    return machine_.files.contains(path) && machine_.files[path]->is_being_written;
  }
  // A copy may change its folder, a hard link has its own name beside it.
  void Rename() {
    const std::string one = Copy();
    const std::string other = Copy();
    if (IsBeingWritten(one) || IsBeingWritten(other)) return;
    if (Number(3) == 0 && machine_.files.contains(one)) {
      machine_.files[other] = machine_.files[one];
    } else {
      std::swap(machine_.files[one], machine_.files[other]);
    }
    std::erase_if(machine_.files, [](const auto& file) { return file.second == nullptr; });
  }
  [[nodiscard]] std::string RecordPath(const std::string& copy) {
    if (!machine_.files.contains(copy)) return {};
    return copy.substr(0, copy.rfind('\\')) + "\\.zelctl\\" + FormatId(machine_.At(copy).id) +
           ".copy";
  }
  // Later than what a run that died may have written itself.
  void Meddle() {
    const std::string path = Copy();
    if (!machine_.files.contains(path)) return;
    MemoryFile& copy = machine_.At(path);
    made_by_hand_.erase(copy.id);
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
    last_ = {words, source};
    last_copy_ = *(std::ranges::find(words, "--to") + 1);
    if (may_die && Number(3) == 0) machine_.death = {.changes = 0, .fail_at = Number(40)};
    if (may_die && Number(30) == 0) service_.is_away = true;
    const FileTime began = machine_.now;
    const Ended ended = Run(words);
    const bool died = machine_.death.has_struck();
    const bool was_away = std::exchange(service_.is_away, false);
    machine_.death = {};
    if (may_die) service_.Live().after_read = {};
    counts_.deaths += died ? 1 : 0;
    if (ended.exit_code != 0) {
      CountRefusal(ended, died || was_away);
      // Whoever finds it half way tries what is at hand.
      if (died && Number(2) == 0) ApplyExportTo(last_copy_);
      return;
    }
    ASSERT_TRUE(ended.json.contains("as_of"));
    ++counts_.good_runs;
    ++counts_.runs[source == kLive ? words[0] + " " + ended.json["mode"].get<std::string>()
                                   : "apply of a snapshot"];
    const std::string copy = ended.json["copy"];
    const FileTime as_of = ParseTime(ended.json["as_of"].get<std::string>(), 0).value_or(0);
    ASSERT_LE(as_of, machine_.now);
    if (source == kLive) {
      // A round and a full pass have all that was written before them.
      if (words[0] == "backup" || words[1] == "--full") {
        ASSERT_GE(as_of, began);
      }
      ExpectGood(machine_.At(copy).bytes, as_of);
    } else {
      ASSERT_EQ(machine_.At(copy).bytes, machine_.At(source).bytes);
    }
  }
  void CountRefusal(const Ended& ended, bool was_broken_off) {
    ++counts_.refusals;
    if (was_broken_off) return;
    ++counts_.reasons[ended.json["error"].value("reason", "")];
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
  Counts& counts_;
  std::vector<std::string> copies_ = {"D:\\one", "D:\\two", "D:\\three", "D:\\other\\one"};
  std::vector<BitmapId> noted_;
  std::vector<std::string> exports_;
  std::vector<std::string> closed_;
  std::vector<Words> snapshots_;             // path and time
  std::map<FileId, FileTime> made_by_hand_;  // as of when
  std::string last_copy_ = copies_[0];
  std::pair<Words, std::string> last_;  // run, and its source
  std::string story_;
};

// A number that the environment may give.
int Wanted(const char* name, int otherwise) {
  const char* const wanted = std::getenv(name);
  return wanted != nullptr ? std::atoi(wanted) : otherwise;
}

TEST(ChainTest, CopyIsWhatItSaysAfterEveryRunThatEndedWell) {
  constexpr int kRoundsOfAWorld = 50;
  Counts counts;
  const int first = Wanted("ZEL_CHAIN_SEED", 0);
  const int worlds = Wanted("ZEL_CHAIN_ROUNDS", 1000) / kRoundsOfAWorld;
  for (int seed = first; seed < first + worlds; ++seed) {
    World world(static_cast<unsigned>(seed), counts);
    for (int round = 0; round < kRoundsOfAWorld; ++round) {
      world.Round();
      ASSERT_FALSE(HasFatalFailure()) << "seed " << seed << "\n" << world.story();
    }
  }
  std::printf("%d good runs, %d refused or failed, %d killed\n", counts.good_runs, counts.refusals,
              counts.deaths);
  for (const auto* of : {&counts.runs, &counts.reasons}) {
    for (const auto& [what, count] : *of) std::printf("  %-20s %6d\n", what.c_str(), count);
  }
  EXPECT_GT(counts.deaths, worlds);
  for (const char* run : {"apply full", "apply incremental", "apply of a snapshot", "backup full",
                          "backup incremental"}) {
    EXPECT_GT(counts.runs[run], worlds / 4) << run;
  }
  for (const char* reason : {"unreliable", "half_way", "too_late", "identity", "not_a_copy",
                             "damaged", "busy", "in_use"}) {
    EXPECT_GT(counts.reasons[reason], 0) << reason;
  }
}

}  // namespace
}  // namespace zel::ctl
