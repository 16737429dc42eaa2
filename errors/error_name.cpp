#include "errors/error_name.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace zel {

namespace {

struct NamedError {
  std::uint32_t code;
  const char* name;
};

// Generated while building, sorted by code (generate_error_names.cmake).
constexpr NamedError kNamedErrors[] = {
#include "error_names.inc"
};

// Strictly ascending: the search depends on it, and no code stands twice.
static_assert(std::ranges::adjacent_find(kNamedErrors, std::ranges::greater_equal{},
                                         &NamedError::code) == std::end(kNamedErrors));

const char* FindName(std::uint32_t code) {
  const auto* const found =
      std::ranges::lower_bound(kNamedErrors, code, std::ranges::less{}, &NamedError::code);
  return found != std::end(kNamedErrors) && found->code == code ? found->name : nullptr;
}

}  // namespace

ErrorName::ErrorName(std::uint32_t code) noexcept : name_(FindName(code)) {
  if (name_ == nullptr) std::to_chars(digits_.data(), digits_.data() + digits_.size() - 1, code);
}

}  // namespace zel
