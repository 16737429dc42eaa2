#include <memory>

#include "prove/scenarios.h"

namespace zel::prove {

namespace {

constexpr double kSmallPart = 0.25;

// The steps of tools/demo.sh.
class Rounds {
 public:
  explicit Rounds(Agent& agent) : agent_(agent) {}

  void Install();
  void Fill();
  void FirstBackup();
  void WorkAndBackup();
  void RestartAndShrink();
  void KillAndBackup();
  void Remove();

 private:
  [[nodiscard]] std::filesystem::path script(const char* name) const {
    return agent_.kit().folder() / "demo" / name;
  }
  [[nodiscard]] std::wstring Sqlite() const {
    return Quoted(agent_.kit().folder() / "demo" / "sqlite3.exe") + L" -bail " + Quoted(database());
  }
  [[nodiscard]] std::filesystem::path database() const { return agent_.data() / "archive.db"; }
  [[nodiscard]] std::filesystem::path copy() const { return agent_.data() / "archive copy.db"; }
  Json Backup(const Words& more = {}, int exit_code = 0) const;
  void BackupSmallPart() const;
  [[nodiscard]] std::uint64_t ChangedBytes() const;

  Agent& agent_;
};

void Rounds::Install() {
  agent_.Install();
  agent_.Start();
}

void Rounds::Fill() {
  const ProgramRun run = agent_.kit().Run(Sqlite(), {.folder = {}, .input = script("fill.sql")});
  Require(run.exit_code == 0,
          "SQLite ended with " + std::to_string(run.exit_code) + ":\n" + run.output);
}

Json Rounds::Backup(const Words& more, int exit_code) const {
  Words words = {L"backup", L"--from",        database().wstring(),
                 L"--to",   copy().wstring(), L"--verify"};
  words.insert(words.end(), more.begin(), more.end());
  Json answer = agent_.Zelctl(words, exit_code);
  if (exit_code == 0) {
    Require(ReadBytes(database()) == ReadBytes(copy()), "the copy differs from the database");
  }
  return answer;
}

void Rounds::BackupSmallPart() const {
  const Json answer = Backup();
  Require(answer.value("mode", "") == "incremental", "it should be incremental: " + answer.dump());
  Require(answer.value("copied_bytes", 0.0) < kSmallPart * answer.value("source_size", 0.0),
          "it should be a small part: " + answer.dump());
}

std::uint64_t Rounds::ChangedBytes() const {
  const Json bitmaps =
      agent_.Zelctl({L"bitmaps", L"--state", database().wstring()}).value("bitmaps", Json::array());
  Require(bitmaps.size() == 1, "one bitmap should collect: " + bitmaps.dump());
  return bitmaps[0].at("changed").value("bytes", std::uint64_t{0});
}

void Rounds::FirstBackup() {
  Require(Backup().value("mode", "") == "full", "the first backup should be a full one");
}

void Rounds::WorkAndBackup() {
  agent_.RunSeen(Sqlite(), script("round1.sql"));
  BackupSmallPart();
}

void Rounds::RestartAndShrink() {
  agent_.RunSeen(Sqlite(), script("round2.sql"));
  agent_.Zelctl({L"sync"});
  const std::uint64_t before = ChangedBytes();
  agent_.Stop();
  agent_.Start();
  Require(before > 0 && before == ChangedBytes(), "the restart should keep the bitmap");
  const std::uintmax_t size = std::filesystem::file_size(database());
  agent_.RunSeen(Sqlite(), script("round2_vacuum.sql"));
  Require(std::filesystem::file_size(database()) < size, "the database should be smaller");
  BackupSmallPart();
}

void Rounds::KillAndBackup() {
  agent_.RunSeen(Sqlite(), script("round3.sql"));
  agent_.Zelctl({L"sync"});
  agent_.Kill();
  agent_.Start();
  const Json refusal = Backup({}, 4);
  Require(refusal.at("error").value("reason", "") == "unreliable", refusal.dump());
  Require(Backup({L"--full-if-needed"}).value("mode", "") == "full", "it should be a full one");
}

void Rounds::Remove() {
  agent_.Zelctl({L"untrack", L"--yes", database().wstring()});
  agent_.Remove();
}

}  // namespace

std::vector<Step> Demonstration(Agent& agent) {
  const auto rounds = std::make_shared<Rounds>(agent);
  const auto step = [&](const char* name, void (Rounds::*run)()) {
    return Step{name, [rounds, run] { (rounds.get()->*run)(); }, {}};
  };
  return {
      step("install and start", &Rounds::Install),
      step("SQLite fills a database of nearly 64 MiB", &Rounds::Fill),
      step("the first backup is a full one, equal", &Rounds::FirstBackup),
      step("SQLite deletes, inserts, updates: a small part is copied, equal",
           &Rounds::WorkAndBackup),
      step("a restart keeps the bitmap; SQLite shrinks the file: equal", &Rounds::RestartAndShrink),
      step("killed: backup refuses, a full pass is equal", &Rounds::KillAndBackup),
      step("remove everything", &Rounds::Remove),
  };
}

}  // namespace zel::prove
