#include "zelctl/commands.h"
#include "zelctl/copies/copy_pass.h"
#include "zelctl/error_words.h"

namespace zel::ctl {

namespace {

// Leaves out what a bitmap says was written since it was begun: with an id as the service knows it
// when a difference is found, so that the file may go on being written.
class Verification {
 public:
  Verification(Surroundings& with, const Request& request, Output& output)
      : with_(with), request_(request), output_(output) {}

  [[nodiscard]] MaybeFailure Run();

 private:
  [[nodiscard]] MaybeFailure ExcuseByBitmap(std::uint64_t at, std::optional<std::uint64_t>& go_on);
  [[nodiscard]] MaybeFailure Take();

  Surroundings& with_;
  const Request& request_;
  Output& output_;
  TakenBitmap bitmap_;
};

MaybeFailure Verification::Take() {
  bitmap_ = {};
  if (auto failure = TakeBitmap(with_, request_, bitmap_)) return failure;
  return CheckTrust(bitmap_.file);
}

MaybeFailure Verification::ExcuseByBitmap(std::uint64_t at, std::optional<std::uint64_t>& go_on) {
  constexpr std::uint64_t kWholeFile = ~std::uint64_t{0};
  go_on = EndOfChange(bitmap_.file, kWholeFile, at);
  if (go_on || !request_.bitmap.file.empty()) return std::nullopt;
  if (auto failure = Take()) return failure;
  go_on = EndOfChange(bitmap_.file, kWholeFile, at);
  return std::nullopt;
}

MaybeFailure Verification::Run() {
  KeptCopy copy(with_.machine, request_.to);
  if (auto failure = copy.Hold()) return failure;
  if (!copy.exists()) {
    return CheckSystem(with_.machine, kFileNotFound, "cannot open " + request_.to);
  }
  if (request_.has_bitmap) {
    if (auto failure = Take()) return failure;
  }
  CopyPass pass(with_, request_, output_, copy);
  if (auto failure = pass.OpenSource()) return failure;
  if (request_.has_bitmap) {
    pass.set_excuse([this](std::uint64_t at, std::optional<std::uint64_t>& go_on) {
      return ExcuseByBitmap(at, go_on);
    });
  }
  output_.json = {{"source", request_.from}, {"copy", request_.to}};
  if (auto failure = pass.Compare(copy.file(), request_.to + " is no copy of it")) return failure;
  output_.confirmation = "compared: " + request_.to + " is a copy of " + request_.from + "\n";
  return std::nullopt;
}

}  // namespace

MaybeFailure RunVerify(Surroundings& with, const Request& request, Output& output) {
  return Verification(with, request, output).Run();
}

}  // namespace zel::ctl
