// A service whose readers have messages in hand and get no further, for the test that kills it.
//
//   message_in_hand_probe INSTALL_DIRECTORY EVENT    EVENT is set when the messages are in hand
#include <windows.h>

#include "driver/driver_port.h"
#include "driver/message_threads.h"
#include "tests/integration/support/driver_fixture.h"
#include "tests/integration/support/scripted_port.h"
#include "tests/integration/support/wait_to_be_killed.h"

namespace zel::test {
namespace {

int Run(const std::wstring& install_directory, const wchar_t* event_name) {
  UseCbtDirectoryOf(install_directory);
  ScriptedPort port;
  InitBitmapManager();
  if (ConnectDriverPort() != S_OK || StartDriverThreads() != ERROR_SUCCESS ||
      !port.WaitForReads(kMessageThreads)) {
    return 1;
  }
  const LockGuard guard(bitmapCacheLock);  // nobody finds a bitmap
  port.Post(MakeWrite(3 * kBlockSize, 1));
  port.Post(MakeWrite(7 * kBlockSize, 1));
  return WaitToBeKilled(event_name);
}

}  // namespace
}  // namespace zel::test

int wmain(int count, wchar_t** arguments) {
  return count == 3 ? zel::test::Run(arguments[1], arguments[2]) : 2;
}
