// Another machine's service, asked with authentication, and without where none is to be had. Pure.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "zelctl/zel_server.h"

namespace zel::ctl {

// Pings before the first call. Where somebody is there and does not take that, everything is asked
// without authentication; where nobody is there, every call answers so at once.
class FallbackServer : public ZelServer {
 public:
  // Two ways to the same service.
  FallbackServer(std::unique_ptr<ZelServer> authenticated, std::unique_ptr<ZelServer> plain)
      : authenticated_(std::move(authenticated)), plain_(std::move(plain)) {}

  Answer Ping() override;
  Answer GetTrackedFiles(std::vector<FileEntry>& files) override;
  Answer ListBitmaps(const FileKey& file, std::vector<BitmapEntry>& bitmaps) override;
  Answer CopyBitmap(BitmapId id, const BitmapSink& sink) override;
  Answer StartTracking(const std::string& path, std::uint32_t block_size,
                       BitmapEntry& bitmap) override;
  Answer StopTracking(const std::string& path) override;
  Answer DeleteBitmap(BitmapId id) override;
  Answer SynchronizeBitmaps(FileTime time) override;
  Answer GetDriverStatus() override;
  std::string Remark() const override;

 private:
  void Choose();
  template <class Call>
  Answer Ask(Call call);

  std::unique_ptr<ZelServer> authenticated_;
  std::unique_ptr<ZelServer> plain_;
  ZelServer* chosen_ = nullptr;  // null until it has been pinged
  Answer ping_;                  // of the chosen one
  std::uint32_t refusal_ = 0;    // the RPC status for which there is no authentication
};

}  // namespace zel::ctl
