#include "zelctl/bitmap_export.h"

#include <algorithm>

#include "zelctl/error_words.h"
#include "zelctl/id_text.h"
#include "zelctl/outputs.h"

namespace zel::ctl {

namespace {

// What the call is broken off with; nobody sees it beside the failure itself.
constexpr std::uint32_t kBrokenOff = 1223;  // ERROR_CANCELLED

}  // namespace

std::uint32_t BitmapExport::Take(std::span<const std::byte> bytes) {
  if (file_ == nullptr && !failure_) {
    const auto part = bytes.first(std::min(bytes.size(), kBitmapHeaderSize - header_bytes_.size()));
    header_bytes_.insert(header_bytes_.end(), part.begin(), part.end());
    bytes = bytes.subspan(part.size());
    size_ += part.size();
    if (size_ < kBitmapHeaderSize) return 0;
    failure_ = TakeHeader();
  }
  if (!failure_ && !bytes.empty()) failure_ = TakeBits(bytes);
  return failure_ ? kBrokenOff : 0;
}

MaybeFailure BitmapExport::TakeHeader() {
  if (const auto fault = ReadSentHeader(header_bytes_, header_)) return Damaged(*fault);
  const std::string& path = request_.output;
  if (auto failure = CheckMayWrite(with_.machine, request_, path, BeginsLikeBitmap)) {
    return failure;
  }
  if (auto failure = CheckWritten(with_.machine.CreateReplacement(path, {}, file_))) {
    return failure;
  }
  // The service may be using its own; nobody uses this one.
  BeginExport(header_bytes_, known_until_);
  checksum_.Add(header_bytes_);
  return CheckWritten(file_->Write(0, header_bytes_));
}

MaybeFailure BitmapExport::TakeBits(std::span<const std::byte> bytes) {
  const std::uint64_t offset = size_;
  size_ += bytes.size();
  // Whoever sends on and on does not fill the disk.
  if (size_ > header_.HeaderSize + std::uint64_t{header_.BitmapSize}) {
    if (const auto fault = CheckLength(header_, size_)) return Damaged(*fault);
  }
  checksum_.Add(bytes);
  return CheckWritten(file_->Write(offset, bytes));
}

MaybeFailure BitmapExport::Finish() {
  if (file_ == nullptr) {
    return Damaged("it has " + std::to_string(size_) + " bytes, fewer than a header's 512");
  }
  if (const auto fault = CheckLength(header_, size_)) return Damaged(*fault);
  FinishExport(header_bytes_, checksum_.value());
  std::uint32_t code = file_->Write(0, header_bytes_);
  if (code == 0) code = file_->Flush();
  if (code == 0) code = file_->Commit();
  return CheckWritten(code);
}

// The service marks what it uses and checks what it finds: its word counts.
Trust BitmapExport::trust() const {
  return header_.Unreliable != 0 ? Trust::kUnreliable : Trust::kTrusted;
}

MaybeFailure BitmapExport::CheckWritten(std::uint32_t code) {
  return CheckSystem(with_.machine, code, "cannot write " + request_.output);
}

MaybeFailure BitmapExport::Damaged(const std::string& fault) const {
  return Refuse(Reason::kDamaged,
                "bitmap " + FormatId(request_.bitmap.id) + " cannot be used: " + fault);
}

}  // namespace zel::ctl
