// The real service control manager without the product's services, and a log.
//
// The services' names belong to the whole machine: a test executable that uses this runs its tests
// under the ctest resource lock service_manager.
#pragma once

#include <windows.h>

#include <string>

#include "service/service_names.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/poll.h"
#include "win32/handles.h"

namespace zel::test {

class ServiceManagerFixture : public LogFixture {
 protected:
  // Refuses to run where the product is installed: the tests would remove it.
  void SetUp() override {
    ASSERT_FALSE(Exists(kServiceName)) << "the product is installed on this machine";
    ASSERT_FALSE(Exists(kDriverServiceName)) << "the driver is installed on this machine";
    installed_here_ = true;
    StartLogging();
  }

  void TearDown() override {
    if (!installed_here_) return;
    Remove(kServiceName);
    Remove(kDriverServiceName);
  }

  UniqueServiceHandle Open(const wchar_t* name) const {
    return UniqueServiceHandle(::OpenServiceW(manager_.get(), name, SERVICE_ALL_ACCESS));
  }

  bool Exists(const wchar_t* name) const { return static_cast<bool>(Open(name)); }

  // A service that runs `command_line`.
  UniqueServiceHandle Create(const wchar_t* name, const std::wstring& command_line) const {
    UniqueServiceHandle service(::CreateServiceW(manager_.get(), name, name, SERVICE_ALL_ACCESS,
                                                 SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                                 SERVICE_ERROR_NORMAL, command_line.c_str(),
                                                 nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(service) << ::GetLastError();
    return service;
  }

  // The dummy service (dummy_service.cpp), which lies beside this program.
  UniqueServiceHandle CreateDummy(const wchar_t* name, const std::wstring& manner = L"") const {
    return Create(name, L"\"" + DummyPath() + L"\" " + manner);
  }

  UniqueServiceHandle StartDummy(const wchar_t* name, const std::wstring& manner = L"") const {
    UniqueServiceHandle service = CreateDummy(name, manner);
    EXPECT_TRUE(::StartServiceW(service.get(), 0, nullptr)) << ::GetLastError();
    EXPECT_TRUE(WaitForState(service.get(), SERVICE_RUNNING));
    return service;
  }

  static DWORD State(SC_HANDLE service) {
    SERVICE_STATUS status = {};
    EXPECT_TRUE(::QueryServiceStatus(service, &status)) << ::GetLastError();
    return status.dwCurrentState;
  }

  static bool WaitForState(SC_HANDLE service, DWORD state) {
    return PollUntil([=] { return State(service) == state; });
  }

 private:
  static std::wstring DummyPath() {
    wchar_t program[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, program, MAX_PATH);
    return (std::filesystem::path(program).parent_path() / "dummy_service.exe").wstring();
  }

  void Remove(const wchar_t* name) const {
    const UniqueServiceHandle service = Open(name);
    if (!service) return;
    SERVICE_STATUS status;
    if (::ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) {
      EXPECT_TRUE(WaitForState(service.get(), SERVICE_STOPPED));
    }
    EXPECT_TRUE(::DeleteService(service.get())) << ::GetLastError();
  }

  UniqueServiceHandle manager_{::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
  bool installed_here_ = false;
};

}  // namespace zel::test
