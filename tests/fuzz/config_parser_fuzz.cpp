// Any text as a configuration file: no crash, and a configuration that the service can work with.
#include <cstdlib>
#include <string>
#include <string_view>

#include "config/config_parser.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

bool Equal(const zel::Configuration& a, const zel::Configuration& b) {
  return a.levels == b.levels && a.bitmap_idle_timeout == b.bitmap_idle_timeout &&
         a.sync_timeout == b.sync_timeout && a.rpc_callers == b.rpc_callers;
}

// Within a category, an enabled level has every higher one enabled too.
bool IsUpwardClosed(std::uint32_t mask) {
  for (int selector = 0; selector < zel::kLogCategories * zel::kLogLevels; ++selector) {
    const bool is_highest = selector % zel::kLogLevels == zel::kLogLevels - 1;
    if (!is_highest && (mask >> selector & 1) != 0 && (mask >> (selector + 1) & 1) == 0) {
      return false;
    }
  }
  return mask >> (zel::kLogCategories * zel::kLogLevels) == 0;
}

bool IsUsableTimeout(std::int64_t seconds) {
  return seconds != 0 && seconds != -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const zel::Configuration configuration = zel::ParseConfiguration(text);
  Require(IsUpwardClosed(zel::ComputeLogEnableMask(configuration.levels)));
  Require(IsUsableTimeout(configuration.bitmap_idle_timeout));
  Require(IsUsableTimeout(configuration.sync_timeout));

  // Lines that say nothing change nothing, wherever they stand.
  Require(Equal(configuration, zel::ParseConfiguration("\n# comment\n" + text + "\n \t\nkey\n")));
  // The last word counts.
  const zel::Configuration overridden =
      zel::ParseConfiguration(text + "\nZelServiceLog=warn\nzelservice:synctimeout=9");
  Require(overridden.levels[zel::kGeneral] == zel::kWarn && overridden.sync_timeout == 9);
  Require(zel::ParseConfiguration(text + "\nzelservice:rpccallers=local").rpc_callers ==
          zel::CallerPolicy::kLocal);
  return 0;
}
