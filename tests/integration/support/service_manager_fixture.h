// The real service control manager without the product's services, and a log.
//
// The services' names belong to the whole machine: a test executable that uses this runs its tests
// under the ctest resource lock service_manager.
#pragma once

#include <windows.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "service/service_names.h"
#include "tests/integration/support/log_fixture.h"
#include "tests/integration/support/poll.h"
#include "win32/handles.h"

namespace zel::test {

class ServiceManagerFixture : public LogFixture {
 protected:
  // Refuses to run where the product is installed: the tests would remove it.
  void SetUp() override {
    RemoveOwn();  // what a test that was broken off has left
    ASSERT_FALSE(Exists(kServiceName)) << "the product is installed on this machine";
    ASSERT_FALSE(Exists(kDriverServiceName)) << "the driver is installed on this machine";
    StartLogging();
  }

  void TearDown() override { RemoveOwn(); }

  UniqueServiceHandle Open(const wchar_t* name) const {
    return UniqueServiceHandle(::OpenServiceW(manager_.get(), name, SERVICE_ALL_ACCESS));
  }

  bool Exists(const wchar_t* name) const { return static_cast<bool>(Open(name)); }

  // A service that runs `program`, which should lie beside this program, with `manner`.
  UniqueServiceHandle Create(const wchar_t* name, const std::wstring& program,
                             const std::wstring& manner = {}) const {
    const std::wstring command_line = L"\"" + Directory() + program + L"\" " + manner;
    UniqueServiceHandle service(::CreateServiceW(manager_.get(), name, name, SERVICE_ALL_ACCESS,
                                                 SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                                 SERVICE_ERROR_NORMAL, command_line.c_str(),
                                                 nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(service) << ::GetLastError();
    return service;
  }

  // The dummy service (dummy_service.cpp).
  UniqueServiceHandle CreateDummy(const wchar_t* name, const std::wstring& manner = {}) const {
    return Create(name, L"dummy_service.exe", manner);
  }

  UniqueServiceHandle StartDummy(const wchar_t* name, const std::wstring& manner = {}) const {
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
  // The directory of this program, with a backslash at its end.
  static std::wstring Directory() {
    wchar_t program[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, program, MAX_PATH);
    return std::filesystem::path(program).parent_path().wstring() + L"\\";
  }

  // Whether the service's program lies beside this one.
  static bool IsOwn(SC_HANDLE service) {
    alignas(QUERY_SERVICE_CONFIGW) BYTE buffer[8192];
    DWORD size = 0;
    auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
    if (!::QueryServiceConfigW(service, config, sizeof buffer, &size)) return false;
    return std::wstring_view(config->lpBinaryPathName).find(Directory()) != std::wstring_view::npos;
  }

  void RemoveOwn() const {
    for (const wchar_t* name : {kServiceName, kDriverServiceName}) {
      {
        const UniqueServiceHandle service = Open(name);
        if (!service || !IsOwn(service.get())) continue;
        Remove(service.get());
      }
      // A deleted service stands until its process has ended and every handle is closed.
      EXPECT_TRUE(PollUntil([&] { return !Exists(name); }));
    }
  }

  static void Remove(SC_HANDLE service) {
    SERVICE_STATUS status;
    if (::ControlService(service, SERVICE_CONTROL_STOP, &status)) {
      EXPECT_TRUE(WaitForState(service, SERVICE_STOPPED));
    }
    const bool deleted = ::DeleteService(service);
    EXPECT_TRUE(deleted || ::GetLastError() == ERROR_SERVICE_MARKED_FOR_DELETE);
  }

  UniqueServiceHandle manager_{::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
};

}  // namespace zel::test
