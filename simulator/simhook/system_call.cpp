#include "simulator/simhook/system_call.h"

#include <windows.h>

#include <cstring>

namespace zel::sim {

namespace {

// A stub stands alone in 32 bytes. It loads the call's number and enters the kernel by absolute
// addresses and jumps within itself, so a copy of it works anywhere. Windows and Wine:
//   mov r10, rcx; mov eax, NUMBER; test byte [7ffe0308h], 1; jne +3; syscall; ret; ...
constexpr std::size_t kStubBytes = 32;
constexpr unsigned char kLoadRcx[] = {0x4C, 0x8B, 0xD1, 0xB8};
constexpr unsigned char kTest[] = {0xF6, 0x04, 0x25, 0x08, 0x03, 0xFE, 0x7F, 0x01, 0x75, 0x03};

bool IsStub(const unsigned char* code) {
  return std::memcmp(code, kLoadRcx, sizeof kLoadRcx) == 0 &&
         std::memcmp(code + 8, kTest, sizeof kTest) == 0;
}

void* CopyStub(const void* stub) {
  void* const copy = ::VirtualAlloc(nullptr, kStubBytes, MEM_COMMIT, PAGE_READWRITE);
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, stub, kStubBytes);
  DWORD protection;
  return ::VirtualProtect(copy, kStubBytes, PAGE_EXECUTE_READ, &protection) ? copy : nullptr;
}

// jmp [rip + 0] and the address behind it: 14 bytes, which end before the stub's first jump.
bool WriteJump(unsigned char* code, void* target) {
  DWORD protection;
  if (!::VirtualProtect(code, kStubBytes, PAGE_EXECUTE_READWRITE, &protection)) return false;
  constexpr unsigned char kJump[] = {0xFF, 0x25, 0, 0, 0, 0};
  std::memcpy(code, kJump, sizeof kJump);
  std::memcpy(code + sizeof kJump, &target, sizeof target);
  return ::VirtualProtect(code, kStubBytes, protection, &protection);
}

}  // namespace

void* ReplaceSystemCall(const char* name, void* replacement) {
  auto* const code =
      reinterpret_cast<unsigned char*>(::GetProcAddress(::GetModuleHandleW(L"ntdll"), name));
  if (code == nullptr || !IsStub(code)) return nullptr;
  void* const original = CopyStub(code);
  if (original == nullptr || !WriteJump(code, replacement)) return nullptr;
  return original;
}

}  // namespace zel::sim
