// The tool as a whole: every command's answer in text and JSON, its failures and exit codes.
#include "zelctl/run.h"

#include "tests/unit/support/tool_fixture.h"
#include "zelctl/command_line.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::Bytes;
using test::kBitmap;
using test::kCreated;
using test::kFile;
using test::kVolume;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Words = std::vector<std::string>;

constexpr char kId[] = "0x000500000001a9f0";

class RunTest : public test::ToolTest {
 protected:
  void TrackTwoFiles() {
    server.files = {{.file = {kVolume, kFile}, .path = "C:\\data\\One.vhdx", .bitmaps = {kBitmap}},
                    {.file = {kVolume, 9}, .path = "C:\\data\\two", .bitmaps = {}}};
    server.bitmaps = {{.id = kBitmap,
                       .file = {kVolume, kFile},
                       .block_size = 65'536,
                       .creation_time = kCreated,
                       .file_size = 515,
                       .file_name = "\\\\?\\C:\\cbt\\x"}};
  }
  void Serve(Bytes bitmap) { server.contents[kBitmap] = std::move(bitmap); }
};

TEST_F(RunTest, PingSaysNothingToAScriptAndTheBestToAPerson) {
  EXPECT_EQ(Run({"ping"}), 0);
  EXPECT_EQ(terminal.printed, "");
  terminal.to_person = true;
  EXPECT_EQ(Run({"ping"}), 0);
  EXPECT_EQ(terminal.printed, "the service answers\n");
  EXPECT_EQ(RunJson({"ping"}).dump(), R"({"ok":true})");
  EXPECT_THAT(server.calls, ElementsAre("Ping", "Ping", "Ping"));
}

TEST_F(RunTest, NoServiceEndsWithThreeAndSaysWhatToCheck) {
  server.answers["Ping"] = {.rpc_status = 1722, .code = 0};
  EXPECT_EQ(Run({"ping"}), 3);
  EXPECT_EQ(terminal.printed, "");
  EXPECT_EQ(terminal.notes,
            "zelctl: RPC_S_SERVER_UNAVAILABLE (1722): no answer from the service on this machine "
            "over ncalrpc: RPC server unavailable; check that ZelService is running (sc query "
            "ZelService; while it is START_PENDING its log tells what it waits for)\n");
  EXPECT_EQ(Run({"ping", "--server", "there", "--endpoint", "99"}), 3);
  EXPECT_THAT(terminal.notes, HasSubstr("on there over ncacn_ip_tcp at 99"));
  EXPECT_THAT(terminal.notes, HasSubstr("firewall"));
}

TEST_F(RunTest, EachWayOfNotGettingThroughHasItsAdvice) {
  struct {
    std::uint32_t status;
    std::vector<std::string> place;
    const char* words;
    const char* no_words;
  } const ways[] = {
      {1703, {}, "--protseq", "sc query"},
      {5, {}, "run it as an administrator", "lets in"},
      {5, {"--server", "there"}, "the account is one that there lets in", "administrator"},
      {5, {"--server", "there"}, "lets in", "--auth"},
      {5, {"--server", "there", "--auth", "none"}, "--auth ntlm tells who", "administrator"},
      {5, {"--server", "there", "--auth", "ntlm"}, "--auth none asks without", "firewall"},
      {1825, {"--server", "there", "--auth", "ntlm"}, "NTLM is allowed", "firewall"},
      {1747, {"--server", "there", "--auth", "ntlm"}, "--auth none asks without", "firewall"},
      {1722, {}, "START_PENDING", "firewall"},
      {1722, {"--server", "there"}, "firewall lets calls through", "without --endpoint"},
      {1722, {"--server", "there", "--endpoint", "99"}, "without --endpoint", "--protseq"},
      {1728, {"--endpoint", "99"}, "99 may be another program's by now", "firewall"},
      {1753, {"--server", "there"}, "check there that ZelService is running", "firewall"},
      {1818, {}, "--timeout", "sc query"},
      {1726, {}, "may have ended", "firewall"},
      {1783, {}, "log", "firewall"}};
  for (const auto& way : ways) {
    server.answers["Ping"] = {.rpc_status = way.status, .code = 0};
    std::vector<std::string> arguments = {"ping"};
    arguments.insert(arguments.end(), way.place.begin(), way.place.end());
    EXPECT_EQ(Run(arguments), 3);
    EXPECT_THAT(terminal.notes, HasSubstr(way.words)) << way.status;
    EXPECT_THAT(terminal.notes, testing::Not(HasSubstr(way.no_words))) << way.status;
  }
}

TEST_F(RunTest, ServiceThatStopsSaysTheSameToEveryCommand) {
  for (const char* call : {"GetTrackedFiles", "CopyBitmap", "StartTracking", "DeleteBitmap",
                           "SynchronizeBitmaps", "GetDriverStatus"}) {
    server.answers[call] = {.rpc_status = 0, .code = 1115};
  }
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"files"},
                                                    {"status"},
                                                    {"track", "C:\\a"},
                                                    {"sync"},
                                                    {"show", "0x1", "--no-sync"}}) {
    const ordered_json error = RunJson(arguments, 1)["error"];
    EXPECT_EQ(error["code"], 1115);
    EXPECT_EQ(error["message"], "the service is stopping; try again when it runs") << arguments[0];
  }
}

TEST_F(RunTest, DriverThatIsNotThereHasItsAdvice) {
  TrackTwoFiles();
  for (const char* call : {"GetDriverStatus", "SynchronizeBitmaps"}) {
    server.answers[call] = {.rpc_status = 0, .code = 0x80070006};
  }
  for (const std::uint32_t code : {1u, 50u, 1460u}) {
    server.answers["StartTracking"] = {.rpc_status = 0, .code = code};
    EXPECT_EQ(Run({"track", "C:\\a"}), 1);
    EXPECT_THAT(terminal.notes, HasSubstr("sc query VelmoraActivityMonitor")) << code;
  }
  for (const char* command : {"status", "sync"}) {
    EXPECT_EQ(Run({command}), 1);
    EXPECT_THAT(terminal.notes, HasSubstr("sc query VelmoraActivityMonitor")) << command;
  }
  server.answers["SynchronizeBitmaps"] = {.rpc_status = 0, .code = 5};
  EXPECT_EQ(Run({"sync"}), 1);
  EXPECT_THAT(terminal.notes, testing::Not(HasSubstr("VelmoraActivityMonitor")));
}

TEST_F(RunTest, RemarkOnTheWayIsANote) {
  server.remark = "asked at night";
  EXPECT_EQ(Run({"ping", "--server", "there"}), 0);
  EXPECT_EQ(terminal.notes, "zelctl: note: asked at night\n");
  EXPECT_EQ(RunJson({"ping"})["notes"][0], "asked at night");
}

TEST_F(RunTest, FailureInJsonHasItsCodeNameAndSentence) {
  server.answers["Ping"] = {.rpc_status = 1722, .code = 0};
  const ordered_json error = RunJson({"ping"}, 3)["error"];
  EXPECT_EQ(error["exit_code"], 3);
  EXPECT_EQ(error["code"], 1722);
  EXPECT_EQ(error["name"], "RPC_S_SERVER_UNAVAILABLE");
  EXPECT_THAT(error["message"].get<std::string>(), HasSubstr("no answer"));
}

TEST_F(RunTest, EveryCommandThatAsksTheServiceEndsWithThreeWithoutOne) {
  for (const char* call :
       {"Ping", "GetTrackedFiles", "CopyBitmap", "StartTracking", "StopTracking", "DeleteBitmap",
        "SynchronizeBitmaps", "GetDriverStatus", "ListBitmaps"}) {
    server.answers[call] = {.rpc_status = 1722, .code = 0};
  }
  machine.At("C:\\a");
  machine.At("C:\\b");
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"ping"},
        {"status"},
        {"files"},
        {"bitmaps"},
        {"track", "C:\\a"},
        {"untrack", "C:\\a"},
        {"sync"},
        {"export", "1", "-o", "x"},
        {"delete", "1"},
        {"show", "0x1"},
        {"apply", "--bitmap", "0x1", "--from", "C:\\a", "--to", "C:\\b"},
        {"backup", "--from", "C:\\a", "--to", "C:\\c"}}) {
    EXPECT_EQ(RunJson(arguments, 3)["error"]["code"], 1722) << arguments[0];
  }
  EXPECT_FALSE(machine.files.contains("x"));
}

TEST_F(RunTest, UsageFailureEndsWithTwo) {
  EXPECT_EQ(Run({"pong"}), 2);
  EXPECT_THAT(terminal.notes, testing::StartsWith("zelctl: "));
  EXPECT_EQ(RunJson({"track"}, 2)["error"]["exit_code"], 2);
  EXPECT_THAT(server.calls, IsEmpty());
}

TEST_F(RunTest, StatusCountsAndAsksTheDriver) {
  TrackTwoFiles();
  EXPECT_EQ(RunJson({"status"}).dump(),
            R"({"ok":true,"tracked_files":2,"bitmaps":1,"driver":true})");
  EXPECT_EQ(Run({"status"}), 0);
  EXPECT_THAT(terminal.printed, HasSubstr("tracked files  2\nbitmaps        1\n"));
}

TEST_F(RunTest, StatusWithoutADriverCountsAllTheSame) {
  TrackTwoFiles();
  server.answers["GetDriverStatus"] = {.rpc_status = 0, .code = 0x80070006};
  const ordered_json json = RunJson({"status"}, 1);
  EXPECT_EQ(json["tracked_files"], 2);
  EXPECT_EQ(json["driver"], false);
  EXPECT_EQ(json["error"]["code"], 0x80070006);
  EXPECT_EQ(Run({"status"}), 1);
  EXPECT_THAT(terminal.printed, HasSubstr("driver         does not answer"));
}

TEST_F(RunTest, StatusCheckEndsWithFourWhenABitmapCannotBeTrusted) {
  TrackTwoFiles();
  Bytes bitmap = test::MakeBitmapBytes(1'114'113, 65'536);
  Serve(bitmap);
  EXPECT_EQ(RunJson({"status", "--check"})["untrusted"], 0);
  test::ChangeHeader(bitmap, [](BitmapFileHeader& header) { header.Unreliable = 1; });
  for (const Bytes& bad : {bitmap, Bytes(600)}) {
    Serve(bad);
    const ordered_json json = RunJson({"status", "--check"}, 4);
    EXPECT_EQ(json["untrusted"], 1);
    EXPECT_EQ(json["error"]["reason"], "unreliable");
  }
  server.contents.clear();
  EXPECT_EQ(RunJson({"status", "--check"}, 4)["untrusted"], 1) << "one that cannot be loaded";
  server.answers["CopyBitmap"] = {.rpc_status = 1722, .code = 0};
  EXPECT_EQ(Run({"status", "--check"}), 3);
}

TEST_F(RunTest, StateOfBitmapsIsATable) {
  TrackTwoFiles();
  Bytes bitmap = test::MakeBitmapBytes(1'114'113, 65'536);
  test::SetBit(bitmap, 0);
  Serve(bitmap);
  machine.now = kCreated + 26 * 3600 * kFileTimeUnitsPerSecond;
  EXPECT_EQ(Run({"bitmaps", "--state"}), 0);
  EXPECT_EQ(
      terminal.printed,
      "BITMAP              STATE       CHANGED                             AGE     BLOCKS     "
      "FILE\n"
      "0x000500000001a9f0  trusted     64.0 KiB of 1.1 MiB (5.9 %)         26 h    64.0 KiB   "
      "C:\\data\\One.vhdx\n");
  const ordered_json json = RunJson({"bitmaps", "--state"})["bitmaps"][0];
  EXPECT_EQ(json["trust"], "trusted");
  EXPECT_EQ(json["changed"]["blocks"], 1);
  test::ChangeHeader(bitmap, [](BitmapFileHeader& header) { header.Unreliable = 1; });
  Serve(bitmap);
  EXPECT_EQ(RunJson({"bitmaps", "--state"})["bitmaps"][0]["trust"], "unreliable");
}

TEST_F(RunTest, FilesAreListedWithTheirBitmaps) {
  TrackTwoFiles();
  EXPECT_EQ(Run({"files"}), 0);
  EXPECT_EQ(terminal.printed,
            "8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e  0x000300000001a2b4  1  C:\\data\\One.vhdx\n"
            "8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e  0x0000000000000009  0  C:\\data\\two\n");
  EXPECT_EQ(RunJson({"files"})["files"][0].dump(),
            R"({"path":"C:\\data\\One.vhdx","volume":"8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e",)"
            R"("file_id":"0x000300000001a2b4","bitmap_ids":["0x000500000001a9f0"]})");
}

TEST_F(RunTest, ListsHaveHeadingsOnATerminal) {
  TrackTwoFiles();
  server.bitmaps[0].block_size = 4095;
  terminal.to_person = true;
  EXPECT_EQ(Run({"files"}), 0);
  EXPECT_EQ(terminal.printed,
            "VOLUME                                FILE ID             BITMAPS  FILE\n"
            "8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e  0x000300000001a2b4  1        "
            "C:\\data\\One.vhdx\n"
            "8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e  0x0000000000000009  0        C:\\data\\two\n");
  EXPECT_EQ(Run({"bitmaps"}), 0);
  EXPECT_EQ(terminal.printed,
            "BITMAP              CREATED                       BLOCKS     FILE\n"
            "0x000500000001a9f0  2026-01-31T14:38:43.4821376Z  4095 bytes  "
            "C:\\data\\One.vhdx\n");
  server.files.clear();
  EXPECT_EQ(Run({"files"}), 0);
  EXPECT_EQ(terminal.printed, "") << "a heading alone says nothing";
}

TEST_F(RunTest, NothingTrackedIsAnEmptyList) {
  EXPECT_EQ(Run({"files"}), 0);
  EXPECT_EQ(terminal.printed, "");
  EXPECT_EQ(RunJson({"files"}).dump(), R"({"ok":true,"files":[]})");
  EXPECT_EQ(RunJson({"bitmaps"}).dump(), R"({"ok":true,"bitmaps":[]})");
}

TEST_F(RunTest, BitmapsOfAllFilesAreListed) {
  TrackTwoFiles();
  EXPECT_EQ(Run({"bitmaps"}), 0);
  EXPECT_EQ(terminal.printed,
            std::string(kId) + "  2026-01-31T14:38:43.4821376Z  64.0 KiB  C:\\data\\One.vhdx\n");
  EXPECT_THAT(server.calls, ElementsAre("GetTrackedFiles", "ListBitmaps", "ListBitmaps"));
  EXPECT_EQ(RunJson({"bitmaps"})["bitmaps"][0].dump(),
            R"({"bitmap_id":"0x000500000001a9f0","path":"C:\\data\\One.vhdx",)"
            R"("volume":"8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e","file_id":"0x000300000001a2b4",)"
            R"("block_size":65536,"creation_time":"2026-01-31T14:38:43.4821376Z",)"
            R"("bitmap_file_size":515,"bitmap_file":"\\\\?\\C:\\cbt\\x"})");
}

TEST_F(RunTest, BitmapsOfOneFileAreFoundByItsPathInAnyCase) {
  TrackTwoFiles();
  EXPECT_EQ(RunJson({"bitmaps", "c:\\DATA\\one.VHDX"})["bitmaps"].size(), 1u);
  EXPECT_EQ(RunJson({"bitmaps", "C:\\data\\two"})["bitmaps"].size(), 0u);
  const ordered_json error = RunJson({"bitmaps", "C:\\data\\three"}, 1)["error"];
  EXPECT_EQ(error["code"], 2);
  EXPECT_EQ(error["message"], "C:\\data\\three is not tracked");
}

TEST_F(RunTest, RelativePathIsOfThisMachineUnlessAnotherIsAsked) {
  EXPECT_EQ(Run({"untrack", "data"}), 0);
  EXPECT_EQ(Run({"untrack", "data", "--server", "there"}), 0);
  EXPECT_THAT(server.calls, ElementsAre("GetTrackedFiles", "StopTracking C:\\here\\data",
                                        "GetTrackedFiles", "StopTracking data"));
}

TEST_F(RunTest, TrackPrintsTheNewBitmapsId) {
  EXPECT_EQ(Run({"track", "C:\\a", "--block-size", "1M"}), 0);
  EXPECT_EQ(terminal.printed, std::string(kId) + "\n");
  const ordered_json json = RunJson({"track", "C:\\a", "--block-size", "1M"});
  EXPECT_EQ(json["bitmap_id"], kId);
  EXPECT_EQ(json["block_size"], 1 << 20);
  EXPECT_FALSE(json.contains("bitmap_file"));
}

TEST_F(RunTest, PersonIsToldWhatIsWaitedFor) {
  EXPECT_EQ(Run({"sync"}), 0);
  EXPECT_THAT(terminal.progress, IsEmpty());
  terminal.to_person = true;
  EXPECT_EQ(Run({"sync"}), 0);
  EXPECT_THAT(terminal.progress, ElementsAre("waiting for the driver's reports", ""));
  server.answers["StartTracking"] = {.rpc_status = 0, .code = 1460};
  EXPECT_EQ(Run({"track", "C:\\a"}), 1);
  EXPECT_THAT(terminal.progress, ElementsAre("waiting for the driver to see the file", ""));
}

TEST_F(RunTest, EachRefusalToTrackHasItsWords) {
  const std::pair<std::uint32_t, const char*> refusals[] = {
      {1110, "zelctl: ERROR_MEDIA_CHANGED (1110): C:\\a is tracked under another file id"},
      {122, "zelctl: ERROR_INSUFFICIENT_BUFFER (122): C:\\a is smaller than 4096 bytes"},
      {2, "zelctl: ERROR_FILE_NOT_FOUND (2): there is no C:\\a"},
      {1, "could not be made, or no driver sees it"},
      {1460, "zelctl: ERROR_TIMEOUT (1460): the driver did not confirm"},
      {1115, "stopping"},
      {5, "zelctl: ERROR_ACCESS_DENIED (5): cannot track C:\\a: Access denied"},
      {65000, "zelctl: 65000: cannot track C:\\a: Unknown error code"}};
  for (const auto& [code, words] : refusals) {
    server.answers["StartTracking"] = {.rpc_status = 0, .code = code};
    EXPECT_EQ(Run({"track", "C:\\a"}), 1);
    EXPECT_THAT(terminal.notes, HasSubstr(words));
    EXPECT_EQ(RunJson({"track", "C:\\a"}, 1)["error"]["code"], code);
  }
}

TEST_F(RunTest, BitmapThatTheServiceCannotLoadIsNoBitmap) {
  server.begun = 0;
  EXPECT_EQ(Run({"track", "C:\\a"}), 1);
  EXPECT_EQ(terminal.printed, "") << "an id of 0 is one that no command takes";
  EXPECT_EQ(terminal.notes, "zelctl: the service made no bitmap that can be used; see its log\n");
}

TEST_F(RunTest, TrackNotesHowManyBitmapsThereAreNow) {
  TrackTwoFiles();
  EXPECT_EQ(Run({"track", "C:\\data\\One.vhdx"}), 0);
  EXPECT_EQ(terminal.notes, "") << "the first one";
  server.bitmaps.push_back(server.bitmaps[0]);
  EXPECT_EQ(Run({"track", "C:\\data\\One.vhdx"}), 0);
  EXPECT_EQ(terminal.printed, std::string(kId) + "\n");
  EXPECT_EQ(terminal.notes, "zelctl: note: C:\\data\\One.vhdx has 2 bitmaps now\n");
  server.answers["ListBitmaps"] = {.rpc_status = 0, .code = 5};
  EXPECT_EQ(Run({"track", "C:\\data\\One.vhdx"}), 0) << "the bitmap is begun";
  EXPECT_EQ(terminal.notes, "");
}

TEST_F(RunTest, UntrackTellsHowManyBitmapsGo) {
  TrackTwoFiles();
  EXPECT_EQ(RunJson({"untrack", "c:\\DATA\\one.vhdx"})["deleted_bitmaps"], 1);
  EXPECT_EQ(RunJson({"untrack", "C:\\data\\two"})["deleted_bitmaps"], 0);
  EXPECT_THAT(terminal.questions, IsEmpty());
}

TEST_F(RunTest, PersonIsAskedBeforeBitmapsGoWithTheirFile) {
  TrackTwoFiles();
  terminal.to_person = true;
  EXPECT_EQ(Run({"untrack", "C:\\data\\One.vhdx"}), 1);
  EXPECT_THAT(terminal.questions,
              ElementsAre("This deletes 1 bitmap, and each copy of C:\\data\\One.vhdx needs a "
                          "full pass afterwards. Stop tracking it?"));
  EXPECT_EQ(terminal.notes, "zelctl: C:\\data\\One.vhdx is still tracked, with 1 bitmap\n");
  EXPECT_THAT(server.calls, ElementsAre("GetTrackedFiles"));
  terminal.answer = true;
  EXPECT_EQ(Run({"untrack", "C:\\data\\One.vhdx"}), 0);
  EXPECT_EQ(terminal.printed,
            "C:\\data\\One.vhdx is not tracked any more; deleted with it: 1 bitmap\n");
  terminal.answer = false;
  for (const std::vector<std::string>& unasked :
       {std::vector<std::string>{"untrack", "C:\\data\\One.vhdx", "--yes"},
        {"untrack", "C:\\data\\two"},
        {"untrack", "C:\\data\\One.vhdx", "--json"}}) {
    EXPECT_EQ(Run(unasked), 0);
  }
  EXPECT_EQ(terminal.questions.size(), 2u);
}

TEST_F(RunTest, UntrackOfAnUntrackedFileIsRefused) {
  server.answers["StopTracking"] = {.rpc_status = 0, .code = 2};
  EXPECT_EQ(Run({"untrack", "C:\\a"}), 1);
  EXPECT_EQ(terminal.notes, "zelctl: ERROR_FILE_NOT_FOUND (2): C:\\a is not tracked\n");
}

TEST_F(RunTest, SyncAsksForNowOrTheTimeThatIsTold) {
  machine.now = 116'444'736'000'000'000;
  EXPECT_EQ(RunJson({"sync"}).dump(),
            R"({"ok":true,"time":"1970-01-01T00:00:00.0000000Z","filetime":116444736000000000})");
  EXPECT_EQ(Run({"sync", "--to", "1970-01-01T00:00:01Z"}), 0);
  EXPECT_EQ(Run({"sync", "--to", "7"}), 0);
  EXPECT_THAT(server.calls,
              ElementsAre("SynchronizeBitmaps 116444736000000000",
                          "SynchronizeBitmaps 116444736010000000", "SynchronizeBitmaps 7"));
}

TEST_F(RunTest, SyncOfAnotherMachineSaysWhoseNowItIs) {
  EXPECT_EQ(Run({"sync", "--server", "there"}), 0);
  EXPECT_THAT(terminal.notes, HasSubstr("this machine's clock: while the one of there is ahead"));
  EXPECT_EQ(Run({"sync", "--server", "there", "--to", "7"}), 0);
  EXPECT_EQ(terminal.notes, "");
  server.answers["SynchronizeBitmaps"] = {.rpc_status = 0, .code = 1460};
  EXPECT_EQ(Run({"sync", "--server", "there"}), 1);
  EXPECT_THAT(terminal.notes, HasSubstr("is it in the future"));
}

TEST_F(RunTest, SyncThatTimesOutSaysWhyItMay) {
  server.answers["SynchronizeBitmaps"] = {.rpc_status = 0, .code = 1460};
  EXPECT_EQ(Run({"sync"}), 1);
  EXPECT_THAT(terminal.notes, HasSubstr("ERROR_TIMEOUT (1460): the driver's reports"));
}

TEST_F(RunTest, ExportWritesTheBitmapAsAClosedFileThatKnowsUntilWhen) {
  Bytes in_use = test::MakeBitmapBytes(1'114'113, 65'536);
  test::SetBit(in_use, 3);
  test::ChangeHeader(in_use, [](BitmapFileHeader& header) { header.ClosedCleanly = 0; });
  Serve(in_use);
  machine.now = 7;
  for (const char* name : {"export", "copy"}) {
    machine.now = 7;
    EXPECT_EQ(RunJson({name, kId, "-o", "out"}).dump(),
              R"({"ok":true,"bitmap_id":"0x000500000001a9f0","output":"out","bytes":515,)"
              R"("trust":"trusted","known_until":"1601-01-01T00:00:00.0000007Z"})");
  }
  EXPECT_THAT(server.calls, ElementsAre("SynchronizeBitmaps 7", "CopyBitmap",
                                        "SynchronizeBitmaps 7", "CopyBitmap"));
  const BitmapFile exported = test::ToBitmap(machine.At("out").bytes);
  EXPECT_EQ(TrustOf(exported), Trust::kTrusted);
  EXPECT_EQ(exported.known_until, 7u);
  EXPECT_EQ(machine.files.size(), 1u);
  EXPECT_FALSE(RunJson({"export", kId, "-o", "out", "--no-sync"}).contains("known_until"));
  EXPECT_EQ(server.calls.size(), 5u);
}

TEST_F(RunTest, ExportThatFailsLeavesNoFile) {
  EXPECT_EQ(RunJson({"export", "77", "-o", "out"}, 1)["error"]["message"],
            "there is no bitmap 0x0000000000000077");
  Serve(Bytes(600));
  const ordered_json error = RunJson({"export", kId, "-o", "out"}, 1)["error"];
  EXPECT_THAT(error["message"].get<std::string>(),
              HasSubstr("cannot be used: it is no bitmap file"));
  EXPECT_EQ(error["reason"], "damaged");
  Serve(test::MakeBitmapBytes(4096, 4096));
  machine.unwritable = "out";
  EXPECT_EQ(RunJson({"export", kId, "-o", "out"}, 1)["error"]["name"], "ERROR_ACCESS_DENIED");
  EXPECT_TRUE(machine.files.empty());
}

TEST_F(RunTest, ExportThatFailsAnywhereLeavesTheOldFile) {
  Serve(test::MakeBitmapBytes(4096, 4096));
  const Bytes old = machine.At("out").bytes = test::MakeBitmapBytes(8192, 4096);
  for (int change = 0; change < 4; ++change) {
    machine.death = {.changes = 0, .fail_at = change};
    EXPECT_EQ(Run({"export", kId, "-o", "out"}), 1) << change;
    EXPECT_EQ(machine.At("out").bytes, old) << change;
  }
  machine.death = {};
  EXPECT_EQ(Run({"export", kId, "-o", "out"}), 0);
  EXPECT_EQ(machine.At("out").bytes.size(), 513u);
}

// Each would have been replaced without a word.
TEST_F(RunTest, NothingOfAnotherKindIsOverwrittenUnasked) {
  Serve(test::MakeBitmapBytes(4096, 4096));
  for (const Bytes& theirs : {Bytes(3), Bytes(600), Bytes()}) {
    machine.At("backup").bytes = theirs;
    for (std::vector<std::string> arguments :
         {std::vector<std::string>{"export", kId, "-o", "backup"},
          {"show", kId, "--png", "backup"}}) {
      EXPECT_EQ(RunJson(arguments, 1)["error"]["reason"], "exists");
      EXPECT_EQ(machine.At("backup").bytes, theirs);
      arguments.emplace_back("--replace");
      EXPECT_EQ(Run(arguments), 0);
      EXPECT_NE(machine.At("backup").bytes, theirs);
      machine.At("backup").bytes = theirs;
    }
  }
}

TEST_F(RunTest, FileUnderATemporaryNameIsSomebodys) {
  Serve(test::MakeBitmapBytes(4096, 4096));
  machine.At("out.zelctl-new").bytes = Bytes(3);
  EXPECT_EQ(Run({"export", kId, "-o", "out"}), 0);
  EXPECT_EQ(machine.At("out.zelctl-new").bytes, Bytes(3));
}

TEST_F(RunTest, DeleteNotesAnIdThatNoBitmapHas) {
  TrackTwoFiles();
  EXPECT_EQ(Run({"delete", kId, "0xdead"}), 0) << "a script may repeat itself";
  EXPECT_EQ(terminal.printed, "");
  EXPECT_EQ(terminal.notes,
            "zelctl: note: there was no bitmap 0x000000000000dead; the service has 1 bitmap "
            "(zelctl bitmaps)\n");
  const ordered_json json = RunJson({"delete", kId, "0xdead"});
  EXPECT_EQ(json["deleted"].size(), 2u);
  EXPECT_EQ(json["unknown"].dump(), R"(["0x000000000000dead"])");
  terminal.to_person = true;
  EXPECT_EQ(Run({"delete", kId, "0xdead"}), 0);
  EXPECT_EQ(terminal.printed, std::string(kId) + " is not there any more\n");
}

TEST_F(RunTest, DeleteTellsHowFarItCame) {
  server.files = {{.file = {kVolume, kFile}, .path = "C:\\a", .bitmaps = {1, 2}}};
  EXPECT_EQ(RunJson({"delete", "1", "0x2"}).dump(),
            R"({"ok":true,"deleted":["0x0000000000000001","0x0000000000000002"],"unknown":[]})");
  server.answers["DeleteBitmap"] = {.rpc_status = 0, .code = 5};
  EXPECT_THAT(RunJson({"delete", "1", "2"}, 1)["deleted"], IsEmpty());
}

TEST_F(RunTest, ShowPrintsTheHeaderAndHowMuchChanged) {
  Bytes bitmap = test::MakeBitmapBytes(1'114'113, 65'536);
  test::SetBit(bitmap, 0);
  test::SetBit(bitmap, 17);
  Serve(bitmap);
  EXPECT_EQ(Run({"show", kId}), 0);
  EXPECT_EQ(terminal.printed,
            "bitmap         0x000500000001a9f0\n"
            "volume         8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e\n"
            "file id        0x000300000001a2b4\n"
            "created        2026-01-31T14:38:43.4821376Z\n"
            "last update    2026-01-31T14:38:43.4821376Z\n"
            "block size     64.0 KiB (65536 bytes)\n"
            "file size then 1.1 MiB (1114113 bytes)\n"
            "size changed   no\n"
            "has all until  1601-01-01T00:00:00.0000000Z\n"
            "state          trusted\n"
            "changed        64.0 KiB of 1.1 MiB (5.9 %)\n"
            "               2 of 18 blocks of 64.0 KiB, in 2 ranges\n");
  EXPECT_EQ(RunJson({"show", kId}).dump(),
            R"({"ok":true,"bitmap":{"bitmap_id":"0x000500000001a9f0",)"
            R"("volume":"8a3f10c2-4d5e-4b7a-9e21-d04f7c6b5a3e","file_id":"0x000300000001a2b4",)"
            R"("creation_time":"2026-01-31T14:38:43.4821376Z",)"
            R"("last_update_time":"2026-01-31T14:38:43.4821376Z","block_size":65536,)"
            R"("file_size":1114113,"bitmap_size":3,"size_changed":false,"version":22,)"
            R"("trust":"trusted"},"changed":{"bytes":65537,"blocks":2,"ranges":2,)"
            R"("of_bytes":1114113,"of_blocks":18},)"
            R"("known_until":"1601-01-01T00:00:00.0000001Z"})");
}

TEST_F(RunTest, ShowListsRangesAndDrawsMaps) {
  Bytes bitmap = test::MakeBitmapBytes(1'114'113, 65'536);
  for (const int block : {0, 7, 8, 17}) test::SetBit(bitmap, block);
  machine.At("bitmap").bytes = bitmap;
  EXPECT_EQ(Run({"show", "bitmap", "--ranges"}), 0);
  EXPECT_EQ(terminal.printed, "0 65536\n458752 131072\n1114112 1\n");
  EXPECT_EQ(Run({"show", "bitmap", "--map"}), 0);
  EXPECT_THAT(terminal.printed, testing::StartsWith("   0.0 KiB  #......##........#\n"));
  const ordered_json json = RunJson({"show", "bitmap", "--ranges", "--map"});
  EXPECT_EQ(json["ranges"][1].dump(), R"({"offset":458752,"length":131072})");
  EXPECT_EQ(json["map"].size(), 18u);
  EXPECT_EQ(json["map"][7].dump(), R"({"offset":458752,"share":1.0})");
  EXPECT_THAT(server.calls, IsEmpty());
}

TEST_F(RunTest, ShowWritesAPicture) {
  machine.At("bitmap").bytes = test::MakeBitmapBytes(1'114'113, 65'536);
  EXPECT_EQ(RunJson({"show", "bitmap", "--png", "map.png"})["png"], "map.png");
  const Bytes& png = machine.At("map.png").bytes;
  ASSERT_GT(png.size(), 8u);
  EXPECT_EQ(png[1], std::byte{'P'});
  machine.unwritable = "map.png";
  EXPECT_EQ(Run({"show", "bitmap", "--png", "map.png"}), 1);
}

TEST_F(RunTest, ShowTellsBitmapsThatCannotBeTrusted) {
  Bytes bitmap = test::MakeBitmapBytes(8192, 4096);
  test::ChangeHeader(bitmap, [](BitmapFileHeader& header) { header.ClosedCleanly = 0; });
  machine.At("bitmap").bytes = bitmap;
  Serve(bitmap);
  EXPECT_EQ(RunJson({"show", "bitmap"})["bitmap"]["trust"], "in_use");
  EXPECT_EQ(RunJson({"show", "bitmap", "--service-copy"})["bitmap"]["trust"], "trusted");
  EXPECT_EQ(RunJson({"show", kId})["bitmap"]["trust"], "trusted");
  test::ChangeHeader(machine.At("bitmap").bytes, [](BitmapFileHeader& header) {
    header.Unreliable = 1;
    header.SizeChanged = 1;
  });
  EXPECT_EQ(RunJson({"show", "bitmap"})["bitmap"]["trust"], "unreliable");
  EXPECT_EQ(Run({"show", "bitmap"}), 0);
  EXPECT_THAT(terminal.printed, HasSubstr("UNRELIABLE"));
  EXPECT_THAT(terminal.printed, HasSubstr("size changed   yes"));
}

TEST_F(RunTest, FileThatIsNoBitmapIsRefusedWithItsReason) {
  machine.At("bitmap").bytes = Bytes(100);
  EXPECT_EQ(RunJson({"show", "bitmap"}, 1)["error"]["message"],
            "bitmap cannot be used: it has 100 bytes, fewer than a header's 512");
  EXPECT_EQ(RunJson({"show", "none"}, 1)["error"]["code"], 2);
}

TEST_F(RunTest, IdWithoutItsPrefixIsNoFile) {
  for (const Words& words :
       {Words{"show", "0000000000b10052"},
        Words{"apply", "--bitmap", "b10052", "--from", "C:\\a", "--to", "D:\\a"}}) {
    machine.At("C:\\a");
    machine.At("D:\\a");
    const std::string message = RunJson(words, 1)["error"]["message"];
    EXPECT_THAT(message, HasSubstr("(an id begins with 0x)"));
  }
  EXPECT_THAT(std::string(RunJson({"show", "none"}, 1)["error"]["message"]),
              testing::Not(HasSubstr("0x")));
}

TEST_F(RunTest, HelpVersionAndCompletionNeedNoService) {
  EXPECT_EQ(Run({"--version"}), 0);
  EXPECT_THAT(terminal.printed, testing::StartsWith("zelctl "));
  EXPECT_EQ(terminal.printed.find_first_not_of("0123456789.", 7), terminal.printed.size() - 1);
  EXPECT_EQ(Run({"help", "apply"}), 0);
  EXPECT_EQ(terminal.printed, HelpText("apply"));
  EXPECT_EQ(RunJson({"help", "apply"})["text"], HelpText("apply").value());
  EXPECT_EQ(Run({"completion", "bash"}), 0);
  EXPECT_THAT(terminal.printed, HasSubstr("complete -o default"));
  EXPECT_THAT(server.calls, IsEmpty());
}

TEST_F(RunTest, TextThatIsNoUtf8StillMakesJson) {
  EXPECT_EQ(RunJson({"untrack", "C:\\\xFF"})["path"], "C:\\\xEF\xBF\xBD");
}

TEST_F(RunTest, OutputThatCannotBeWrittenIsAFailure) {
  terminal.is_closed = true;
  EXPECT_EQ(Run({"files"}), 1);
  EXPECT_THAT(terminal.notes, HasSubstr("it was done, but the answer could not be written"));
  EXPECT_EQ(Run({"show", "none"}), 1);
  EXPECT_THAT(terminal.notes, testing::Not(HasSubstr("it was done")));
}

TEST_F(RunTest, FileThatIsNoBitmapIsNotReadWhole) {
  machine.At("B:\\big").bytes.resize(1 << 20);
  EXPECT_EQ(RunJson({"show", "B:\\big"}, 1)["error"]["reason"], "damaged");
  EXPECT_THAT(machine.At("B:\\big").reads, testing::ElementsAre(std::pair(0, 512)));
}

}  // namespace
}  // namespace zel::ctl
