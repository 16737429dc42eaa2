// What a command line asks for. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "files/types.h"

namespace zel::ctl {

enum class Command {
  kPing,
  kStatus,
  kFiles,
  kBitmaps,
  kTrack,
  kUntrack,
  kSync,
  kExport,
  kDelete,
  kShow,
  kApply,
  kBackup,
  kVerify,
  kCompletion,
  kHelp,
  kVersion,
};

// Whether calls tell who makes them, signed and encrypted.
enum class Authentication {
  kNone,
  kNtlm,
  kNtlmOrNone,  // none where NTLM is not to be had
};

// Where a bitmap comes from.
struct BitmapChoice {
  BitmapId id = 0;
  std::string file;  // not empty: a file instead
};

// Texts are UTF-8. A member says which commands use it.
struct Request {
  Command command = Command::kHelp;
  bool json = false;

  std::string server;    // empty: this machine
  std::string protseq;   // empty: ncalrpc on this machine, ncacn_ip_tcp to another
  std::string endpoint;  // empty: the server's endpoint mapper is asked

  std::optional<Authentication> authentication;  // always there after reading
  std::optional<std::uint32_t> timeout_s;  // of a call, 0 for none; always there after reading

  bool check = false;                 // status
  bool state = false;                 // bitmaps
  std::string path;                   // track, untrack; bitmaps, empty for all files
  std::uint32_t block_size = 65'536;  // track, backup
  std::string time = "now";           // sync; as ParseTime takes it
  std::vector<BitmapId> ids;          // delete
  bool yes = false;                   // untrack: nobody is to be asked
  std::string output;                 // export

  BitmapChoice bitmap;        // export, an id; show, apply
  bool has_bitmap = false;    // apply --full and verify need none
  bool service_copy = false;  // show, apply: the file is what the service sent
  bool ranges = false;        // show
  bool map = false;           // show
  bool ascii = false;         // show
  std::string png;            // show

  std::string from;             // apply, backup, verify
  std::string to;               // apply, backup, verify
  bool full = false;            // apply
  bool verify = false;          // apply, backup
  bool full_if_needed = false;  // backup
  bool force_identity = false;  // apply
  std::string snapshot_time;    // apply; as ParseTime takes it, empty for the live file
  std::string as_of;            // apply; the same, empty for what is known
  bool dry_run = false;         // apply
  bool no_sync = false;         // export, show, apply
  bool replace = false;         // export, show, apply, backup: what would be overwritten may be
  bool progress = false;        // apply, backup, verify: where there is no terminal, too

  std::string text;  // help, completion: what is to be printed
};

}  // namespace zel::ctl
