// The program entry. The exit code is 0 whatever happened.

#include "service/program.h"

int wmain(int argument_count, wchar_t** arguments) {
  zel::RunProgram({arguments, static_cast<std::size_t>(argument_count)});
  return 0;
}
