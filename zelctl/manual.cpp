#include "zelctl/manual.h"

#include <algorithm>
#include <array>

namespace zel::ctl {

namespace {

constexpr std::array<ManualPage, 13> kCommands = {{
    {"ping", "asks whether the service answers",
     "Ends with 0 when it does and with 3 when it does not.\n\n"
     "Examples:\n"
     "  zelctl ping\n"
     "  zelctl ping --server filer01\n"
     "  zelctl ping --protseq ncacn_ip_tcp --endpoint 49152\n"},

    {"status", "tells how the service and the driver are",
     "Counts the tracked files and their bitmaps and has the service ask the driver,\n"
     "whose report goes to the service's log. Ends with 1 when the driver does not\n"
     "answer.\n\n"
     "JSON: tracked_files, bitmaps, driver (whether it answers).\n"},

    {"files", "lists the tracked files",
     "A line for each: volume, file id, number of bitmaps, path.\n\n"
     "JSON: files, each with path, volume, file_id, bitmap_ids.\n"},

    {"bitmaps", "lists the bitmaps of one or of all tracked files",
     "A line for each: bitmap id, time of creation, block size, path of the tracked\n"
     "file.\n\n"
     "Example: zelctl bitmaps D:\\vm\\disk.vhdx\n\n"
     "JSON: bitmaps, each with bitmap_id, path, volume, file_id, block_size,\n"
     "creation_time, bitmap_file_size, bitmap_file.\n"},

    {"track", "starts tracking a file and makes a bitmap of it",
     "A file that is tracked already gets one more bitmap; each collects changes on\n"
     "its own from then on. Prints the new bitmap's id. Files of less than 4096 bytes\n"
     "cannot be tracked. Small blocks keep backups small and make large bitmaps: a\n"
     "file of 1T has one of 2M with blocks of 64K.\n\n"
     "Example: zelctl track --block-size 1M D:\\vm\\disk.vhdx\n\n"
     "JSON: bitmap_id, path, volume, file_id, block_size, creation_time,\n"
     "bitmap_file_size.\n"},

    {"untrack", "stops tracking a file and deletes its bitmaps",
     "Ends with 1 when the file is not tracked. Tracked anew, the file needs a full\n"
     "copy first.\n\n"
     "JSON: path.\n"},

    {"sync", "waits until all writes up to a time are in the bitmaps",
     "TIME is \"now\", ISO 8601 with a zone, or a FILETIME (zelctl help values). Now is\n"
     "this machine's time: a service whose clock is behind waits for it, up to its\n"
     "SyncTimeout.\n\n"
     "Examples:\n"
     "  zelctl sync\n"
     "  zelctl sync --to 2026-01-31T23:59:59+01:00\n\n"
     "JSON: time, filetime.\n"},

    {"copy", "writes a bitmap to a file",
     "The file is what the bitmap's own file would be if the service closed it now,\n"
     "ClosedCleanly included; show and apply take it. Synchronize before.\n\n"
     "Example: zelctl copy 0x000500000001a9f0 --output E:\\backup\\disk.bitmap\n\n"
     "JSON: bitmap_id, output, bytes, trust.\n"},

    {"delete", "deletes bitmaps",
     "Delete a bitmap when what it says has been used and is not needed again. An id\n"
     "that the service does not know is no failure: the service tells no difference.\n\n"
     "Example: zelctl delete 0x000500000001a9f0\n\n"
     "JSON: deleted, the ids; after a failure those before it.\n"},

    {"show", "shows what a bitmap says",
     "Prints the header and how much changed; with --ranges a line \"OFFSET LENGTH\"\n"
     "for each changed range, merged and within the size that the file had when the\n"
     "bitmap was created; with --map the file as a field of cells as large as the\n"
     "terminal, each shaded by how much of it changed. --png writes the same with up\n"
     "to 8192 cells. Where UTF-8 is not shown the cells are plain characters.\n\n"
     "Examples:\n"
     "  zelctl show 0x000500000001a9f0 --map\n"
     "  zelctl show E:\\backup\\disk.bitmap --ranges\n"
     "  zelctl show E:\\backup\\disk.bitmap --png disk.png\n\n"
     "JSON: bitmap (bitmap_id, volume, file_id, creation_time, last_update_time,\n"
     "block_size, file_size, bitmap_size, size_changed, version, trust), changed\n"
     "(bytes, blocks, ranges, of_bytes, of_blocks); where asked for ranges (offset,\n"
     "length), map (offset, share) and png. trust is trusted, unreliable or in_use.\n"},

    {"apply", "brings a copy of a tracked file up to date",
     "Copies from SOURCE to COPY what the bitmap says has changed, reads nothing else,\n"
     "and gives COPY the size of SOURCE. COPY must have been equal to SOURCE when the\n"
     "bitmap was created or later.\n\n"
     "With an id the bitmap is synchronized first and then fetched. Writes that come\n"
     "later are not in it: run apply on a quiet file or on a snapshot, or start\n"
     "another bitmap (track) before, which has them. A bitmap file knows no writes\n"
     "that came after it was made. The bitmap stays; delete it when apply has ended\n"
     "with 0.\n\n"
     "Refused, with exit code 1 and COPY untouched:\n"
     "  - a bitmap that is unreliable, or a file that the service is using or left\n"
     "    behind. --service-copy says of a file that the service sent it to somebody;\n"
     "  - a SOURCE that is not the bitmap's file by volume and file id. Say\n"
     "    --force-identity for a snapshot of it;\n"
     "  - a COPY that is missing, or too short to be one.\n"
     "--full copies everything instead, needs no bitmap, and puts the copy in its\n"
     "place when it is whole. To begin anew: track, then apply --full.\n\n"
     "An interrupted run leaves COPY half way and COPY.zelctl-apply beside it; until a\n"
     "run with the same bitmap, an earlier one of the same file, or --full has ended\n"
     "with 0, other bitmaps are refused. With --verify that includes the comparison.\n\n"
     "Examples:\n"
     "  zelctl apply --full --from D:\\vm\\disk.vhdx --to E:\\backup\\disk.vhdx\n"
     "  zelctl apply --bitmap 0x000500000001a9f0 --from D:\\vm\\disk.vhdx\n"
     "    --to E:\\backup\\disk.vhdx --verify\n\n"
     "JSON: mode (incremental or full), source, copy, source_size, copied_bytes,\n"
     "copied_ranges, verified; difference_at when the files differ.\n"},

    {"completion", "prints a script that completes command lines",
     "bash:       source <(zelctl completion bash)\n"
     "PowerShell: zelctl completion powershell | Out-String | Invoke-Expression\n\n"
     "JSON: text.\n"},

    {"help", "tells how to use a command", "JSON: text.\n"},
}};

constexpr std::array<ManualPage, 3> kTopics = {{
    {"values", "how sizes, times and ids are written",
     "Sizes  4096, 64K, 1M, 2G, 1T, and 64KiB; powers of 1024.\n"
     "Times  now; 2026-01-31T23:59:59Z, with fractions of a second and with +01:00 for\n"
     "       the Z; or the digits of a FILETIME, 100 ns since 1601-01-01 UTC.\n"
     "Ids    0x000500000001a9f0. copy and delete take them without the 0x, too; where\n"
     "       a file may stand instead the 0x tells.\n"
     "Paths  are made absolute here, unless --server names another machine.\n"},

    {"exit", "exit codes",
     "0  done\n"
     "1  refused: the service, the system or a check said no; the reason is in words\n"
     "   and number, ERROR_MEDIA_CHANGED (1110): ...\n"
     "2  wrong usage\n"
     "3  no answer from the service; the message says what to check\n"},

    {"json", "answers for scripts",
     "With --json standard output has one object and nothing else, failures included:\n"
     "ok (true or false) and the members that the command's help names. A failure has\n"
     "error with exit_code, code (of the service or the system, 0 without one), name\n"
     "(of the code) and message. notes, where it is there, lists sentences worth\n"
     "knowing. Members are only ever added. zelctl --version has version.\n\n"
     "Sizes, offsets and counts are numbers, ids are texts in hexadecimal, times ISO\n"
     "8601 in UTC with seven digits of a second.\n\n"
     "Without --json data goes to standard output and all else to standard error;\n"
     "confirmations and progress are for terminals only.\n"},
}};

}  // namespace

std::span<const ManualPage> CommandPages() {
  return kCommands;
}

std::span<const ManualPage> TopicPages() {
  return kTopics;
}

const ManualPage& CommandPage(std::string_view name) {
  return *std::ranges::find(kCommands, name, &ManualPage::name);
}

}  // namespace zel::ctl
