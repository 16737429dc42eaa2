#include "zelctl/zel_server.h"

namespace zel::ctl {

Answer CopyBitmapTo(ZelServer& server, BitmapId id, std::vector<std::byte>& contents) {
  std::vector<std::byte> sent;
  const Answer answer = server.CopyBitmap(id, [&](std::span<const std::byte> bytes) {
    sent.insert(sent.end(), bytes.begin(), bytes.end());
    return 0u;
  });
  if (answer.ok()) contents = std::move(sent);
  return answer;
}

}  // namespace zel::ctl
