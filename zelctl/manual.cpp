#include "zelctl/manual.h"

#include <algorithm>
#include <array>

namespace zel::ctl {

namespace {

constexpr std::array<ManualPage, 15> kCommands = {{
    {"ping", "asks whether the service answers",
     "Ends with 0 when it does and with 3 when it does not.\n\n"
     "Examples:\n"
     "  zelctl ping\n"
     "  zelctl ping --server filer01\n"
     "  zelctl ping --protseq ncacn_ip_tcp --endpoint 49152\n"},

    {"status", "tells how the service and the driver are",
     "Counts the tracked files and their bitmaps and has the service ask the driver,\n"
     "whose report goes to the service's log. Ends with 1 when the driver does not\n"
     "answer. With --check it looks into each bitmap and ends with 4 when one cannot\n"
     "be trusted.\n\n"
     "JSON: tracked_files, bitmaps, driver (whether it answers); untrusted (how many\n"
     "bitmaps).\n"},

    {"files", "lists the tracked files",
     "A line for each: volume, file id, number of bitmaps, path; with headings on a\n"
     "terminal.\n\n"
     "JSON: files, each with path, volume, file_id, bitmap_ids.\n"},

    {"bitmaps", "lists the bitmaps of one or of all tracked files",
     "A line for each: bitmap id, time of creation, block size, path of the tracked\n"
     "file; with headings on a terminal. With --state always with headings: bitmap,\n"
     "state (trusted, unreliable, or damaged for one that cannot be used), how much\n"
     "changed, age, block size, path. The bitmaps are not synchronized for it.\n\n"
     "Example: zelctl bitmaps D:\\vm\\disk.vhdx\n\n"
     "JSON: bitmaps, each with bitmap_id, path, volume, file_id, block_size,\n"
     "creation_time, bitmap_file_size, bitmap_file; with --state trust and changed as\n"
     "show has them (bytes, blocks, ranges, of_bytes, of_blocks).\n"},

    {"track", "starts tracking a file and makes a bitmap of it",
     "A file that is tracked already gets one more bitmap; each collects changes on\n"
     "its own from then on, and a note on standard error tells how many there are.\n"
     "Prints the new bitmap's id. Files of less than 4096 bytes cannot be tracked.\n"
     "Small blocks keep backups small and make large bitmaps: a file of 1T has one of\n"
     "2M with blocks of 64K.\n\n"
     "Example: zelctl track --block-size 1M D:\\vm\\disk.vhdx\n\n"
     "JSON: bitmap_id, path, volume, file_id, block_size, creation_time,\n"
     "bitmap_file_size.\n"},

    {"untrack", "stops tracking a file and deletes its bitmaps",
     "Ends with 1 when the file is not tracked. Tracked anew, the file needs a full\n"
     "copy first. Somebody at a terminal is told how many bitmaps go and asked; with\n"
     "--yes, with --json, and in scripts, where input or standard error is no\n"
     "terminal, nothing is asked.\n\n"
     "JSON: path, deleted_bitmaps (how many).\n"},

    {"sync", "waits until all writes up to a time are in the bitmaps",
     "TIME is \"now\", ISO 8601 with a zone, or a FILETIME (zelctl help values). Now is\n"
     "the time of this machine's clock, with --server too: where the service's clock\n"
     "is behind, it waits for that time, up to its SyncTimeout; where it is ahead,\n"
     "what was written last may be missing, which a note says.\n\n"
     "Examples:\n"
     "  zelctl sync\n"
     "  zelctl sync --to 2026-01-31T23:59:59+01:00\n\n"
     "JSON: time, filetime.\n"},

    {"export", "writes a bitmap to a file",
     "The bitmap is synchronized first. The file is what the bitmap's own file would\n"
     "be if the service closed it now; besides it has a checksum and the time until\n"
     "which it knows of every write. show, apply and verify take it. A FILE that is\n"
     "there must be a bitmap file, or --replace must be said. With --no-sync nobody\n"
     "knows until when the bitmap knows, and a copy becomes no newer by it.\n\n"
     "Example: zelctl export 0x000500000001a9f0 --output E:\\backup\\disk.bitmap\n\n"
     "JSON: bitmap_id, output, bytes, trust, known_until.\n"},

    {"delete", "deletes bitmaps",
     "Delete a bitmap when what it says has been used and is not needed again. An id\n"
     "that no bitmap has is noted and no failure, so that a script may repeat itself.\n\n"
     "Example: zelctl delete 0x000500000001a9f0\n\n"
     "JSON: deleted, the ids that no bitmap has any more; unknown, those of them that\n"
     "none had; after a failure those before it.\n"},

    {"show", "shows what a bitmap says",
     "Prints the header and how much changed; with --ranges a line \"OFFSET LENGTH\"\n"
     "for each changed range, merged and within the size that the file had when the\n"
     "bitmap was created; with --map the file as a field of cells as large as the\n"
     "terminal, each shaded by how much of it changed. --png writes the same with up\n"
     "to 8192 cells; a FILE that is there must be a PNG, or --replace must be said.\n"
     "Where UTF-8 is not shown the cells are plain characters. A bitmap that is named\n"
     "by its id is synchronized first.\n\n"
     "Examples:\n"
     "  zelctl show 0x000500000001a9f0 --map\n"
     "  zelctl show E:\\backup\\disk.bitmap --ranges\n"
     "  zelctl show E:\\backup\\disk.bitmap --png disk.png\n\n"
     "JSON: bitmap (bitmap_id, volume, file_id, creation_time, last_update_time,\n"
     "block_size, file_size, bitmap_size, size_changed, version, trust), changed\n"
     "(bytes, blocks, ranges, of_bytes, of_blocks); where asked for ranges (offset,\n"
     "length), map (offset, share) and png; known_until where it is known. trust is\n"
     "trusted, unreliable or in_use.\n"},

    {"backup", "brings a copy up to date, whatever came before",
     "The round of every night, in one command: begins the next bitmap, synchronizes,\n"
     "copies what the last bitmap says has changed, and deletes that one when the copy\n"
     "is good. Where there is no COPY yet it makes the first, full one. The bitmaps\n"
     "are this copy's own; other copies of SOURCE have theirs. After an interruption\n"
     "at any point: run it again.\n\n"
     "Where the last bitmap cannot be trusted, or something else stands against it,\n"
     "it ends with exit code 4; with --full-if-needed it says so and copies\n"
     "everything. With --verify both files are compared whole; what was written\n"
     "since the next bitmap was begun may differ. A COPY of which nothing is known is\n"
     "overwritten only with --replace. SOURCE must be on the service's machine.\n\n"
     "Prints one line: how much was read, how much there is, as of when the copy is,\n"
     "and why everything was copied if it was.\n\n"
     "Example:\n"
     "  zelctl backup --from D:\\vm\\disk.vhdx --to E:\\backup\\disk.vhdx --verify\n\n"
     "JSON: mode (incremental or full), source, copy, source_size, copied_bytes,\n"
     "copied_ranges, verified, as_of, bitmap_id (that was used), next_bitmap_id,\n"
     "deleted (ids), why (everything was copied); difference_at.\n"},

    {"apply", "brings a copy of a tracked file up to date with one bitmap",
     "Copies from SOURCE to COPY what the bitmap says has changed, reads nothing else,\n"
     "and gives COPY the size of SOURCE. Always in this order: track begins the new\n"
     "bitmap; a snapshot, if you read from one; apply the old bitmap; delete it. What\n"
     "is written meanwhile is in the new one.\n\n"
     "A folder .zelctl beside COPY holds of which file it is a copy and as of when. A\n"
     "bitmap is taken when it was begun no later than that; afterwards the copy is as\n"
     "of the time to which the bitmap was synchronized or exported: every write until\n"
     "then is in it. Of a copy that something else has made or changed nothing is\n"
     "known: --as-of TIME tells it.\n\n"
     "Refused, with COPY untouched:\n"
     "  - a bitmap that is unreliable or began too late, and a COPY that is missing or\n"
     "    unknown: exit code 4, --full helps;\n"
     "  - a bitmap file that the service is using or left behind. --service-copy says\n"
     "    of a file that the service sent it to somebody;\n"
     "  - a SOURCE that is not the bitmap's file. --force-identity with\n"
     "    --snapshot-time says that it is a snapshot of it;\n"
     "  - a COPY that is the tracked file itself, or that another run is working on;\n"
     "    unless --replace is said, one that the service tracks and, with --full, one\n"
     "    that is not known as a copy of SOURCE.\n"
     "--full copies everything, whatever the bitmap says, and puts the copy in its\n"
     "place when it is whole: there must be room for both. A bitmap is needed only to\n"
     "tell whose snapshot SOURCE is. The old file's links, streams and rights are not\n"
     "taken over. To begin anew: track, then apply --full.\n\n"
     "An interrupted run leaves COPY half way; until a run with the same bitmap, one\n"
     "that knows more, or --full has ended with 0, other bitmaps are refused. With\n"
     "--verify that includes the comparison. Of a live file, what was written since\n"
     "its last bitmap was begun may differ, unless that is the applied one. Prints one\n"
     "line: how much was read, how much a full pass reads, and as of when the copy is.\n\n"
     "Examples:\n"
     "  zelctl apply --full --from D:\\vm\\disk.vhdx --to E:\\backup\\disk.vhdx\n"
     "  zelctl apply --bitmap 0x000500000001a9f0 --from D:\\vm\\disk.vhdx\n"
     "    --to E:\\backup\\disk.vhdx --verify\n\n"
     "JSON: mode (incremental or full), source, copy, source_size, copied_bytes,\n"
     "copied_ranges, verified, as_of; dry_run; difference_at when the files differ.\n"},

    {"verify", "compares a file with its copy",
     "With --bitmap a difference counts only where the bitmap says that nothing was\n"
     "written since it was begun. A bitmap that is named by its id is asked again when\n"
     "a difference is found, so a file that is being written can be checked: name the\n"
     "one that was begun before the copy was last brought up to date. Ends with 1\n"
     "when the files differ.\n\n"
     "Example:\n"
     "  zelctl verify --from D:\\vm\\disk.vhdx --to E:\\backup\\disk.vhdx\n"
     "    --bitmap 0x000500000001a9f0\n\n"
     "JSON: source, copy; difference_at when the files differ.\n"},

    {"completion", "prints a script that completes command lines",
     "bash:       source <(zelctl completion bash)\n"
     "PowerShell: zelctl completion powershell | Out-String | Invoke-Expression\n\n"
     "They offer commands, options and their words, files, and the ids of this\n"
     "machine's bitmaps.\n\n"
     "JSON: text.\n"},

    {"help", "tells how to use a command", "JSON: text.\n"},
}};

constexpr std::array<ManualPage, 3> kTopics = {{
    {"values", "how sizes, times and ids are written",
     "Sizes  4096, 0x1000, 64K, 1M, 2G, 1T, and 64KiB; powers of 1024.\n"
     "Times  now; 2026-01-31T23:59:59Z, with fractions of a second and with +01:00 for\n"
     "       the Z; or the digits of a FILETIME, 100 ns since 1601-01-01 UTC.\n"
     "Ids    0x000500000001a9f0. export and delete take them without the 0x, too;\n"
     "       where a file may stand instead the 0x tells.\n"
     "Paths  are made absolute here, unless --server names another machine.\n"},

    {"exit", "exit codes",
     "0  done\n"
     "1  refused: the service, the system or a check said no; the reason is in words\n"
     "   and number, ERROR_MEDIA_CHANGED (1110): ...\n"
     "2  wrong usage\n"
     "3  no answer from the service; the message says what to check\n"
     "4  a full copy is needed: apply --full, or backup --full-if-needed\n"},

    {"json", "answers for scripts",
     "With --json standard output has one object and nothing else, failures included:\n"
     "ok (true or false) and the members that the command's help names. A failure has\n"
     "error with exit_code, code (of the service or the system, 0 without one), name\n"
     "(of the code), message and reason: unreliable, in_use, half_way, too_late,\n"
     "identity, not_a_copy, differs, damaged, busy, exists, or nothing. notes,\n"
     "where it is there, lists sentences worth knowing. Members are only ever added.\n"
     "zelctl --version has version.\n\n"
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
