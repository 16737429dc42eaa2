// Whether this machine's Windows is Wine, whose gaps the bench fills. Test bench only: the product
// asks no such question.
#pragma once

#include <string>

namespace zel::sim {

// Empty on Windows.
[[nodiscard]] std::string WineVersion();
[[nodiscard]] bool IsOnWine();

}  // namespace zel::sim
