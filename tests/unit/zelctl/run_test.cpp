// The tool as a whole: exit codes, advice where nobody answers, and its output.
#include "tests/unit/support/run_fixture.h"
#include "zelctl/help_text.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::RunTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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
      {5, {"--server", "there"}, "--protseq ncacn_np asks by file sharing", "firewall"},
      {5, {"--server", "there", "--endpoint", "99"}, "lets in", "ncacn_np asks"},
      {5, {"--server", "there", "--protseq", "ncacn_np"}, "lets in", "asks by"},
      {1825, {"--server", "there", "--auth", "ntlm"}, "NTLM is allowed", "firewall"},
      {1747, {"--server", "there", "--auth", "ntlm"}, "--auth none asks without", "firewall"},
      {1722, {}, "START_PENDING", "firewall"},
      {1722, {"--server", "there"}, "lets calls through (TCP port 135", "without --endpoint"},
      {1722, {"--server", "there", "--protseq", "ncacn_np"}, "TCP port 445", "135"},
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

}  // namespace
}  // namespace zel::ctl
