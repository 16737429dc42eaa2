// What a command line asks for. Pure.
#pragma once

#include <cstdint>
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
  kCopy,
  kDelete,
  kShow,
  kApply,
  kCompletion,
  kHelp,
  kVersion,
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

  std::string path;                   // track, untrack; bitmaps, empty for all files
  std::uint32_t block_size = 65'536;  // track
  std::string time = "now";           // sync; as ParseTime takes it
  std::vector<BitmapId> ids;          // delete; copy, one
  std::string output;                 // copy

  BitmapChoice bitmap;        // show, apply
  bool has_bitmap = false;    // apply --full needs none
  bool service_copy = false;  // show, apply: the file is what the service sent
  bool ranges = false;        // show
  bool map = false;           // show
  bool ascii = false;         // show
  std::string png;            // show

  std::string from;             // apply
  std::string to;               // apply
  bool full = false;            // apply
  bool verify = false;          // apply
  bool force_identity = false;  // apply
  bool no_sync = false;         // apply

  std::string text;  // help, completion: what is to be printed
};

}  // namespace zel::ctl
