#include "zelctl/fallback_server.h"

#include <algorithm>
#include <iterator>

namespace zel::ctl {

namespace {

// Whether without authentication the answer may be another one. There are many ways to say that it
// is not to be had, 5, 1747 and 1825 among them, and few that nobody was reached at all.
bool SomebodyRefuses(std::uint32_t rpc_status) {
  constexpr std::uint32_t kNobody[] = {
      0,     // RPC_S_OK: nothing was refused
      1700,  // RPC_S_INVALID_STRING_BINDING
      1703,  // RPC_S_PROTSEQ_NOT_SUPPORTED
      1704,  // RPC_S_INVALID_RPC_PROTSEQ
      1706,  // RPC_S_INVALID_ENDPOINT_FORMAT
      1707,  // RPC_S_INVALID_NET_ADDR
      1722,  // RPC_S_SERVER_UNAVAILABLE
      1753,  // EPT_S_NOT_REGISTERED
      1818,  // RPC_S_CALL_CANCELED
  };
  return std::ranges::find(kNobody, rpc_status) == std::end(kNobody);
}

}  // namespace

void FallbackServer::Choose() {
  if (chosen_ != nullptr) return;
  chosen_ = authenticated_.get();
  ping_ = chosen_->Ping();
  if (!SomebodyRefuses(ping_.rpc_status)) return;
  refusal_ = ping_.rpc_status;
  chosen_ = plain_.get();
  ping_ = chosen_->Ping();
}

template <class Call>
Answer FallbackServer::Ask(Call call) {
  Choose();
  return ping_.ok() ? call(*chosen_) : ping_;
}

Answer FallbackServer::Ping() {
  Choose();
  return ping_;
}

Answer FallbackServer::GetTrackedFiles(std::vector<FileEntry>& files) {
  return Ask([&](ZelServer& server) { return server.GetTrackedFiles(files); });
}

Answer FallbackServer::ListBitmaps(const FileKey& file, std::vector<BitmapEntry>& bitmaps) {
  return Ask([&](ZelServer& server) { return server.ListBitmaps(file, bitmaps); });
}

Answer FallbackServer::CopyBitmap(BitmapId id, const BitmapSink& sink) {
  return Ask([&](ZelServer& server) { return server.CopyBitmap(id, sink); });
}

Answer FallbackServer::StartTracking(const std::string& path, std::uint32_t block_size,
                                     BitmapEntry& bitmap) {
  return Ask([&](ZelServer& server) { return server.StartTracking(path, block_size, bitmap); });
}

Answer FallbackServer::StopTracking(const std::string& path) {
  return Ask([&](ZelServer& server) { return server.StopTracking(path); });
}

Answer FallbackServer::DeleteBitmap(BitmapId id) {
  return Ask([&](ZelServer& server) { return server.DeleteBitmap(id); });
}

Answer FallbackServer::SynchronizeBitmaps(FileTime time) {
  return Ask([&](ZelServer& server) { return server.SynchronizeBitmaps(time); });
}

Answer FallbackServer::GetDriverStatus() {
  return Ask([](ZelServer& server) { return server.GetDriverStatus(); });
}

std::string FallbackServer::Remark() const {
  if (refusal_ == 0) return {};
  return "asked without authentication, unsigned and not encrypted: with it the answer was " +
         std::to_string(refusal_) +
         " (--auth ntlm asks in no other way, --auth none at once in this)";
}

}  // namespace zel::ctl
