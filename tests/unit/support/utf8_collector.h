// Collects what a Utf8Writer hands on.
#pragma once

#include <string>
#include <utility>

#include "logging/utf8_writer.h"

namespace zel::test {

// The bytes that `write(Utf8Writer&)` produces.
template <class Write>
std::string CollectUtf8(Write write) {
  std::string bytes;
  {
    Utf8Writer writer(
        [](void* target, const char* piece, std::size_t count) {
          static_cast<std::string*>(target)->append(piece, count);
        },
        &bytes);
    write(writer);
  }
  return bytes;
}

}  // namespace zel::test
