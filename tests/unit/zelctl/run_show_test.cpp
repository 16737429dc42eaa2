// export and show: what they print and write.
#include "tests/unit/support/run_fixture.h"

namespace zel::ctl {
namespace {

using nlohmann::ordered_json;
using test::Bytes;
using test::kId;
using test::RunTest;
using test::Words;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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
  int changes = 0;
  for (;; ++changes) {
    machine.death = {.changes = 0, .fail_at = changes};
    if (Run({"export", kId, "-o", "out"}) == 0) break;
    EXPECT_EQ(machine.At("out").bytes, old) << changes;
  }
  // Made, header, bits, header again, flushed, put in its place.
  EXPECT_EQ(changes, 6);
  EXPECT_EQ(machine.At("out").bytes.size(), 513u);
}

TEST_F(RunTest, ExportIsTheSameInWhateverPiecesTheBitmapComes) {
  Bytes sent = test::MakeBitmapBytes(std::uint64_t{1} << 30, 65'536);
  test::SetBit(sent, 77);
  Serve(sent);
  machine.now = 7;
  BitmapFile whole = test::ToBitmap(sent);
  MakeExport(whole, 7);
  for (const std::size_t bytes : {1, 511, 512, 513, 4096}) {
    server.piece_bytes = bytes;
    machine.now = 7;
    EXPECT_EQ(Run({"export", kId, "-o", "out"}), 0);
    EXPECT_EQ(machine.At("out").bytes, whole.bytes) << bytes;
  }
}

TEST_F(RunTest, ExportOfABitmapThatIsBrokenOffLeavesTheOldFile) {
  Serve(test::MakeBitmapBytes(std::uint64_t{1} << 30, 65'536));
  const Bytes old = machine.At("out").bytes = test::MakeBitmapBytes(8192, 4096);
  for (const Answer answer : {Answer{0, 1115}, Answer{1726, 0}, Answer{1818, 0}}) {
    server.broken_off_with = answer;
    for (const std::size_t after : {0, 100, 512, 1000}) {
      server.broken_off_after = after;
      EXPECT_EQ(
          RunJson({"export", kId, "-o", "out"}, answer.rpc_status == 0 ? 1 : 3)["error"]["code"],
          answer.rpc_status + answer.code);
    }
  }
  EXPECT_EQ(machine.files.size(), 1u);
  EXPECT_EQ(machine.At("out").bytes, old);
}

TEST_F(RunTest, ExportOfOtherBytesThanTheHeaderSaysIsDamaged) {
  const Bytes good = test::MakeBitmapBytes(std::uint64_t{1} << 30, 65'536);
  for (const std::size_t size : {std::size_t{511}, std::size_t{512}, good.size() - 1,
                                 good.size() + 1, std::size_t{100'000}}) {
    Bytes bytes = good;
    bytes.resize(size);
    Serve(bytes);
    EXPECT_EQ(RunJson({"export", kId, "-o", "out"}, 1)["error"]["reason"], "damaged") << size;
  }
  Bytes marked = good;
  marked[0x60] = std::byte{1};
  Serve(marked);
  EXPECT_EQ(RunJson({"export", kId, "-o", "out"}, 1)["error"]["reason"], "damaged");
  EXPECT_TRUE(machine.files.empty());
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

TEST_F(RunTest, FileThatIsNoBitmapIsNotReadWhole) {
  machine.At("B:\\big").bytes.resize(1 << 20);
  EXPECT_EQ(RunJson({"show", "B:\\big"}, 1)["error"]["reason"], "damaged");
  EXPECT_THAT(machine.At("B:\\big").reads, testing::ElementsAre(std::pair(0, 512)));
}

}  // namespace
}  // namespace zel::ctl
