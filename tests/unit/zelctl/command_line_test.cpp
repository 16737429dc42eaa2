#include "zelctl/command_line.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "zelctl/help_text.h"
#include "zelctl/manual.h"

namespace zel::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Words = std::vector<std::string>;

Request Parse(const Words& arguments) {
  Request request;
  const MaybeFailure failure = ParseCommandLine(arguments, request);
  EXPECT_EQ(failure ? failure->message : "", "");
  return request;
}

std::string UsageFault(const Words& arguments) {
  Request request;
  const MaybeFailure failure = ParseCommandLine(arguments, request);
  if (!failure) return "";
  EXPECT_EQ(failure->exit_code, ExitCode::kUsage);
  EXPECT_THAT(failure->message, testing::Not(testing::HasSubstr("\n")));
  return failure->message;
}

TEST(ParseCommandLineTest, EveryCommandIsKnown) {
  EXPECT_EQ(Parse({"ping"}).command, Command::kPing);
  EXPECT_EQ(Parse({"status"}).command, Command::kStatus);
  EXPECT_EQ(Parse({"files"}).command, Command::kFiles);
  EXPECT_EQ(Parse({"bitmaps"}).command, Command::kBitmaps);
  EXPECT_EQ(Parse({"track", "x"}).command, Command::kTrack);
  EXPECT_EQ(Parse({"untrack", "x"}).command, Command::kUntrack);
  EXPECT_EQ(Parse({"sync"}).command, Command::kSync);
  EXPECT_EQ(Parse({"export", "1", "-o", "x"}).command, Command::kExport);
  EXPECT_EQ(Parse({"copy", "1", "-o", "x"}).command, Command::kExport) << "its old name";
  EXPECT_EQ(Parse({"delete", "1"}).command, Command::kDelete);
  EXPECT_EQ(Parse({"show", "x"}).command, Command::kShow);
  EXPECT_EQ(Parse({"apply", "--full", "--from", "x", "--to", "y"}).command, Command::kApply);
  EXPECT_EQ(Parse({"completion", "bash"}).command, Command::kCompletion);
  EXPECT_EQ(Parse({"help"}).command, Command::kHelp);
  EXPECT_EQ(Parse({"--version"}).command, Command::kVersion);
}

TEST(ParseCommandLineTest, OptionsOfEveryCommandMayStandAnywhere) {
  for (const Words& arguments : {Words{"--json", "--server", "there", "--endpoint", "99", "ping"},
                                 Words{"ping", "--json", "--server", "there", "--endpoint=99"}}) {
    const Request request = Parse(arguments);
    EXPECT_TRUE(request.json);
    EXPECT_EQ(request.server, "there");
    EXPECT_EQ(request.endpoint, "99");
  }
}

TEST(ParseCommandLineTest, AnotherMachineIsAskedOverTcpUnlessToldOtherwise) {
  EXPECT_EQ(Parse({"ping"}).protseq, "ncalrpc");
  EXPECT_EQ(Parse({"ping", "--server", "there"}).protseq, "ncacn_ip_tcp");
  EXPECT_EQ(Parse({"ping", "--server", "there", "--protseq", "ncacn_np"}).protseq, "ncacn_np");
  EXPECT_THAT(UsageFault({"ping", "--protseq", "smoke"}), HasSubstr("smoke"));
}

TEST(ParseCommandLineTest, AnotherMachineIsToldWhoAsksIfItTakesThat) {
  EXPECT_EQ(Parse({"ping"}).authentication, Authentication::kNone);
  EXPECT_EQ(Parse({"ping", "--protseq", "ncacn_np"}).authentication, Authentication::kNone);
  EXPECT_EQ(Parse({"ping", "--server", "there"}).authentication, Authentication::kNtlmOrNone);
  EXPECT_EQ(Parse({"ping", "--server", "there", "--auth", "none"}).authentication,
            Authentication::kNone);
  EXPECT_EQ(Parse({"--auth", "ntlm", "ping"}).authentication, Authentication::kNtlm);
  EXPECT_THAT(UsageFault({"ping", "--auth", "smoke"}), HasSubstr("smoke"));
}

TEST(ParseCommandLineTest, ProbesHaveATimeoutAndOthersOnlyWhenTold) {
  EXPECT_EQ(Parse({"ping"}).timeout_s, 30u);
  EXPECT_EQ(Parse({"status"}).timeout_s, 30u);
  EXPECT_EQ(Parse({"sync"}).timeout_s, 0u);
  EXPECT_EQ(Parse({"ping", "--timeout", "0"}).timeout_s, 0u);
  EXPECT_EQ(Parse({"--timeout", "5", "sync"}).timeout_s, 5u);
  EXPECT_THAT(UsageFault({"ping", "--timeout", "soon"}), testing::Not(""));
}

TEST(ParseCommandLineTest, EmptyServerIsNotThisMachine) {
  EXPECT_THAT(UsageFault({"ping", "--server", ""}), HasSubstr("--server"));
}

TEST(ParseCommandLineTest, EmptyPathIsNeitherEveryFileNorTheFolder) {
  for (const char* command : {"bitmaps", "track", "untrack"}) {
    EXPECT_THAT(UsageFault({command, ""}), HasSubstr("the path is empty")) << command;
  }
}

TEST(ParseCommandLineTest, BlockSizesAreSizesOf32Bits) {
  EXPECT_EQ(Parse({"track", "x"}).block_size, 65'536u);
  EXPECT_EQ(Parse({"track", "x", "--block-size", "1M"}).block_size, 1u << 20);
  EXPECT_EQ(Parse({"track", "x", "--block-size", "4294967294"}).block_size, 0xFFFFFFFE);
  EXPECT_EQ(Parse({"track", "x", "--block-size", "0x20000"}).block_size, 0x20000u);
  for (const char* size : {"0", "4G", "4294967295", "4294967296", "0xFFFFFFFF", "x", ""}) {
    EXPECT_THAT(UsageFault({"track", "x", "--block-size", size}), HasSubstr("block size")) << size;
  }
}

TEST(ParseCommandLineTest, TimesAreCheckedWhileReading) {
  EXPECT_EQ(Parse({"sync"}).time, "now");
  EXPECT_EQ(Parse({"sync", "--to", "2026-01-31T23:59:59Z"}).time, "2026-01-31T23:59:59Z");
  EXPECT_THAT(UsageFault({"sync", "--to", "yesterday"}), HasSubstr("'yesterday' is no time"));
}

TEST(ParseCommandLineTest, IdsAreTakenWithAndWithoutTheirPrefix) {
  EXPECT_THAT(Parse({"delete", "0x1A", "1b", "000000000000001C"}).ids,
              ElementsAre(0x1A, 0x1B, 0x1C));
  EXPECT_THAT(UsageFault({"delete", "0x1A", "x"}), HasSubstr("'x' is no id"));
  EXPECT_EQ(Parse({"export", "1a", "-o", "x"}).bitmap.id, 0x1Au);
  EXPECT_THAT(UsageFault({"export", "", "-o", "y"}), testing::Not(""));
}

TEST(ParseCommandLineTest, PrefixTellsAnIdFromAFile) {
  EXPECT_EQ(Parse({"show", "0x1a"}).bitmap.id, 0x1Au);
  EXPECT_EQ(Parse({"show", "0x1a"}).bitmap.file, "");
  EXPECT_EQ(Parse({"show", "1a"}).bitmap.file, "1a");
  EXPECT_THAT(UsageFault({"show", "0xy"}), HasSubstr("'0xy' is no id"));
}

TEST(ParseCommandLineTest, PathMayBeCalledLikeACommand) {
  EXPECT_EQ(Parse({"track", "status"}).path, "status");
  EXPECT_EQ(Parse({"track", "status"}).command, Command::kTrack);
  EXPECT_EQ(Parse({"show", "apply", "--map"}).bitmap.file, "apply");
}

TEST(ParseCommandLineTest, PathsMayHaveAnyCharacters) {
  const std::string path =
      "C:\\Gr\xC3\xB6\xC3\x9F"
      "e \xF0\x9F\x98\x80\\a b;'\"=,[x]";
  EXPECT_EQ(Parse({"track", path}).path, path);
  EXPECT_EQ(Parse({"track", "/x"}).path, "/x");
  EXPECT_EQ(Parse({"track", "--", "--json"}).path, "--json");
}

TEST(ParseCommandLineTest, ApplyNeedsABitmapOrIsFull) {
  EXPECT_THAT(UsageFault({"apply", "--from", "x", "--to", "y"}), HasSubstr("--bitmap is required"));
  EXPECT_THAT(UsageFault({"apply", "--full", "--to", "y"}), HasSubstr("--from is required"));
  const Request request =
      Parse({"apply", "--bitmap", "0x7", "--from", "x", "--to", "y", "--verify", "--force-identity",
             "--snapshot-time", "2026-01-31T23:59:59Z", "--no-sync", "--service-copy"});
  EXPECT_EQ(request.bitmap.id, 7u);
  EXPECT_EQ(request.from, "x");
  EXPECT_EQ(request.to, "y");
  EXPECT_TRUE(request.verify && request.force_identity && request.no_sync && request.service_copy);
  EXPECT_FALSE(request.full);
}

TEST(ParseCommandLineTest, WhatApplyIsToldMustFitTogether) {
  const Words apply = {"apply", "--bitmap", "0x7", "--from", "x", "--to", "y"};
  const auto fault = [&](Words more) {
    more.insert(more.begin(), apply.begin(), apply.end());
    return UsageFault(more);
  };
  EXPECT_THAT(fault({"--force-identity"}), HasSubstr("--snapshot-time"));
  EXPECT_THAT(fault({"--snapshot-time", "now"}), HasSubstr("--force-identity"));
  EXPECT_THAT(fault({"--as-of", "yesterday"}), HasSubstr("'yesterday' is no time"));
  EXPECT_THAT(fault({"--full", "--as-of", "7"}), HasSubstr("--as-of"));
  EXPECT_THAT(UsageFault({"apply", "--full", "--force-identity", "--snapshot-time", "7", "--from",
                          "x", "--to", "y"}),
              HasSubstr("--bitmap is required"));
  EXPECT_THAT(UsageFault({"apply", "--full", "--from", "x", "--to", ""}), HasSubstr("--to"));
}

TEST(ParseCommandLineTest, WhatMeansNothingIsRefused) {
  for (const Words& arguments :
       {Words{}, Words{"--json"}, Words{"pong"}, Words{"ping", "x"}, Words{"ping", "--loud"},
        Words{"track"}, Words{"track", "x", "y"}, Words{"export", "1"}, Words{"copy", "1"},
        Words{"delete"}, Words{"show"}, Words{"completion", "fish"}, Words{"help", "me"},
        Words{"ping", "status"}}) {
    EXPECT_NE(UsageFault(arguments), "") << testing::PrintToString(arguments);
  }
}

TEST(ParseCommandLineTest, WrongUsageNamesThePageThatHelps) {
  EXPECT_EQ(UsageFault({}), "A command is missing; see zelctl help");
  EXPECT_EQ(UsageFault({"track"}), "PATH is required; see zelctl help track");
  EXPECT_EQ(UsageFault({"track", "x", "y"}),
            "The following argument was not expected: y; see zelctl help track");
  EXPECT_EQ(UsageFault({"copy"}), "ID is required; see zelctl help export") << "its old name";
  for (const Words& arguments :
       {Words{"apply", "--from", "x", "--to", "y"}, Words{"apply", "--from", "x", "--to", ""},
        Words{"apply", "--full", "--as-of", "7", "--from", "x", "--to", "y"}}) {
    EXPECT_THAT(UsageFault(arguments), testing::EndsWith("; see zelctl help apply"));
  }
}

TEST(ParseCommandLineTest, WordThatIsNearlyRightIsNamed) {
  EXPECT_EQ(UsageFault({"bitmap"}),
            "There is no command 'bitmap' (did you mean bitmaps?); see zelctl help");
  EXPECT_EQ(UsageFault({"--json", "untrac", "x"}),
            "There is no command 'untrac' (did you mean untrack?); see zelctl help");
  EXPECT_EQ(UsageFault({"frobnicate"}), "There is no command 'frobnicate'; see zelctl help");
  EXPECT_EQ(UsageFault({"track", "--blocksize", "64K", "x"}),
            "There is no option '--blocksize' (did you mean --block-size?); see zelctl help track");
  EXPECT_EQ(UsageFault({"help", "export files"}),
            "There is no help on 'export files'; see zelctl help");
  EXPECT_EQ(UsageFault({"help", "jason"}),
            "There is no help on 'jason' (did you mean json?); see zelctl help");
}

TEST(ParseCommandLineTest, WindowsWayToAskForHelpIsKnown) {
  EXPECT_EQ(Parse({"/?"}).text, HelpText(""));
  EXPECT_EQ(Parse({"track", "/?"}).text, HelpText("track"));
  EXPECT_EQ(Parse({"track", "--", "/?"}).path, "/?");
}

TEST(ParseCommandLineTest, FailureStillKnowsWhetherJsonIsWanted) {
  Request request;
  EXPECT_TRUE(ParseCommandLine({"pong", "--json"}, request));
  EXPECT_TRUE(request.json);
  EXPECT_TRUE(ParseCommandLine({"pong"}, request));
  EXPECT_FALSE(request.json);
}

TEST(HelpTest, EveryTopicHasHelpAndSoHasHelpItself) {
  for (const std::string& topic : HelpTopics()) {
    const std::string text = HelpText(topic).value_or("");
    EXPECT_THAT(text, testing::StartsWith("zelctl " + topic + " - "));
    EXPECT_EQ(Parse({"help", topic}).text, text);
    EXPECT_THAT(HelpText("").value_or(""), HasSubstr("\n  " + topic + " "));
  }
  EXPECT_EQ(Parse({"track", "--help"}).text, HelpText("track"));
  EXPECT_EQ(Parse({"track", "-h"}).command, Command::kHelp);
  EXPECT_EQ(Parse({"--help"}).text, HelpText(""));
  EXPECT_EQ(HelpText("nothing"), std::nullopt);
}

TEST(HelpTest, EveryCommandHasItsPage) {
  EXPECT_EQ(CommandPages().size(), 15u);
  for (const ManualPage& page : CommandPages()) {
    EXPECT_THAT(HelpText(std::string(page.name)).value_or(""), HasSubstr("\nUsage: zelctl "));
  }
}

TEST(HelpTest, LinesFitATerminal) {
  std::vector<std::string> topics = HelpTopics();
  topics.emplace_back();
  for (const std::string& topic : topics) {
    std::istringstream text(HelpText(topic).value());
    for (std::string line; std::getline(text, line);) EXPECT_LE(line.size(), 80u) << line;
  }
}

// The manual holds what the program prints. To bring it up to date: tools/update_manual.py
TEST(HelpTest, ManualHoldsEveryHelpText) {
  std::ifstream document("docs/zelctl.md");
  std::stringstream manual;
  manual << document.rdbuf();
  for (std::string topic : HelpTopics()) {
    const std::string block = "## " + topic + "\n\n```text\n" + HelpText(topic).value() + "```\n";
    EXPECT_THAT(manual.str(), HasSubstr(block)) << topic;
  }
  EXPECT_THAT(manual.str(), HasSubstr("```text\n" + HelpText("").value() + "```\n"));
}

TEST(CompletionTest, PowerShellScriptNamesEveryCommandAndOption) {
  const std::string script = Parse({"completion", "powershell"}).text;
  EXPECT_THAT(script, HasSubstr("Register-ArgumentCompleter -Native"));
  for (const ManualPage& page : CommandPages()) {
    EXPECT_THAT(script, HasSubstr("    '" + std::string(page.name) + "' = @("));
  }
  EXPECT_THAT(script, HasSubstr("'--force-identity'"));
  EXPECT_THAT(script, HasSubstr("    'apply --from' = '<files>'\n"));
  EXPECT_THAT(script, HasSubstr("    'delete' = '<ids>'\n"));
  EXPECT_THAT(script, HasSubstr("    'export -o' = '<files>'\n"));
  EXPECT_THAT(script, HasSubstr("    ' --auth' = @('ntlm', 'none')\n"));
  EXPECT_THAT(script, testing::Not(HasSubstr("'ping --auth'"))) << "a place of every command";
  EXPECT_EQ(std::ranges::count(script, '{'), std::ranges::count(script, '}'));
  EXPECT_EQ(std::ranges::count(script, '('), std::ranges::count(script, ')'));
}

// tests/unit/zelctl/bash_completion_test.sh runs what this writes.
TEST(CompletionTest, BashScriptIsWrittenForItsShell) {
  const char* const wanted = std::getenv("ZEL_COMPLETION_FILE");
  std::ofstream file(wanted != nullptr ? wanted : testing::TempDir() + "zelctl-completion");
  EXPECT_TRUE(file << Parse({"completion", "bash"}).text);
}

}  // namespace
}  // namespace zel::ctl
