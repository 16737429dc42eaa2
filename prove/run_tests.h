// Runs the kit's test programs.
#pragma once

#include <functional>
#include <vector>

#include "prove/kit.h"
#include "prove/report.h"
#include "prove/test_programs.h"

namespace zel::prove {

// Adds an item for each test of the programs of `kind` to `items`, and tells of each; in the short
// form integration programs run the first test of each suite, and one item says how many were left
// out. A program that is missing or does not tell its tests is a failure. After an interruption
// what is left is "not run".
void RunTestPrograms(const Kit& kit, TestKind kind, bool short_form,
                     const std::function<void(const Item&)>& told, std::vector<Item>& items);

}  // namespace zel::prove
