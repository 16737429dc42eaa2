// What a run leaves outside of the kit's folder while it runs, taken away again whatever happens:
// by the run itself, or by the next one, which reads the state file.
//
// Threads: the main thread.
#pragma once

#include <string>

#include "prove/kit.h"
#include "prove/state.h"

namespace zel::prove {

class Traces {
 public:
  explicit Traces(Kit& kit) : kit_(kit) {}

  // What a run that did not end in order has left is removed. Returns what could not be, a line
  // each; empty when nothing is left.
  [[nodiscard]] std::string CleanUpAfterEarlierRun();

  // One line that names what is installed here and is none of ours; empty when nothing is.
  [[nodiscard]] static std::string Foreign();

  // Writes down what is about to be made. Throws StepFailure when that cannot be kept; nothing must
  // be made then.
  void Announce() const;

  // Removes everything that Announce announced and the work folder. Returns as the first one does.
  [[nodiscard]] std::string CleanUp();

 private:
  [[nodiscard]] std::filesystem::path StateFile() const;

  Kit& kit_;
};

// Names the install directory in the agent's registry value. Throws StepFailure.
void WriteInstallDirectory(const std::filesystem::path& directory);

}  // namespace zel::prove
