#include "files/own_rights.h"

#include <aclapi.h>
#include <sddl.h>

#include <array>
#include <cstddef>
#include <optional>

#include "errors/error_info.h"
#include "files/directory_listing.h"
#include "logging/log_message.h"
#include "win32/handles.h"
#include "win32/no_links.h"

namespace zel {

namespace {

using UniqueDescriptor = UniqueResource<NullTraits<PSECURITY_DESCRIPTOR, ::LocalFree>>;
using UniqueSidText = UniqueResource<NullTraits<wchar_t*, ::LocalFree>>;

// In the language of security descriptors; the installer has the same.
constexpr wchar_t kDirectoryRights[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
constexpr wchar_t kFileRights[] = L"D:P(A;;FA;;;SY)(A;;FA;;;BA)";

SECURITY_ATTRIBUTES MakeAttributes(const wchar_t* text) {
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, nullptr, FALSE};
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(
          text, SDDL_REVISION_1, &attributes.lpSecurityDescriptor, nullptr)) {
    LogMessage(kGeneralError, L"No rights could be made of %ls: %hs\n", text, ErrorInfo().text());
  }
  return attributes;
}

struct SidBytes {
  alignas(SID) std::array<std::byte, SECURITY_MAX_SID_SIZE> bytes;
};

std::optional<SidBytes> WellKnownSid(WELL_KNOWN_SID_TYPE type) {
  SidBytes sid;
  DWORD size = sizeof sid;
  if (!::CreateWellKnownSid(type, nullptr, sid.bytes.data(), &size)) return std::nullopt;
  return sid;
}

// Whether the process runs under this account. LocalSystem is SYSTEM; in a console it is an
// administrator's own.
bool IsOwnAccount(PSID sid) {
  UniqueToken token;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put())) return false;
  alignas(TOKEN_USER) std::array<std::byte, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> user;
  DWORD size = 0;
  return ::GetTokenInformation(token.get(), TokenUser, user.data(), sizeof user, &size) &&
         ::EqualSid(reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid, sid);
}

bool IsTrusted(PSID sid) {
  return ::IsWellKnownSid(sid, WinLocalSystemSid) ||
         ::IsWellKnownSid(sid, WinBuiltinAdministratorsSid) || IsOwnAccount(sid);
}

std::wstring TextOf(PSID sid) {
  UniqueSidText text;
  return ::ConvertSidToStringSidW(sid, text.put()) ? text.get() : L"?";
}

// Who has a right by this entry; empty when it is nobody but those who are trusted.
std::wstring OtherIn(ACE_HEADER& entry) {
  if (entry.AceType == ACCESS_DENIED_ACE_TYPE) return {};
  if (entry.AceType != ACCESS_ALLOWED_ACE_TYPE) return L"an entry of a rare kind";
  // The SID begins there and has its own length.
  PSID const sid = &reinterpret_cast<ACCESS_ALLOWED_ACE&>(entry).SidStart;
  return IsTrusted(sid) ? std::wstring() : TextOf(sid);
}

void AppendOther(std::wstring& others, const std::wstring& other) {
  if (other.empty() || others.find(other) != std::wstring::npos) return;
  if (!others.empty()) others.append(L", ");
  others.append(other);
}

struct FoundRights {
  std::wstring others;     // who has rights besides those who should, or is the owner
  bool has_owner = false;  // one of those who should
  bool is_closed = false;  // to what is inherited
};

FoundRights DescribeRights(PSECURITY_DESCRIPTOR descriptor, PSID owner, PACL list) {
  FoundRights found;
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  found.is_closed = ::GetSecurityDescriptorControl(descriptor, &control, &revision) &&
                    (control & SE_DACL_PROTECTED) != 0;
  found.has_owner = owner != nullptr && IsTrusted(owner);
  if (owner != nullptr && !found.has_owner) AppendOther(found.others, TextOf(owner));
  if (list == nullptr) AppendOther(found.others, L"everybody");
  for (WORD i = 0; list != nullptr && i < list->AceCount; ++i) {
    void* entry = nullptr;
    if (!::GetAce(list, i, &entry)) continue;
    AppendOther(found.others, OtherIn(*static_cast<ACE_HEADER*>(entry)));
  }
  return found;
}

// Nothing when they cannot be read, with the system's error.
std::optional<FoundRights> ReadRights(HANDLE file, DWORD& error) {
  UniqueDescriptor descriptor;
  PSID owner = nullptr;
  PACL list = nullptr;
  error = ::GetSecurityInfo(file, SE_FILE_OBJECT,
                            OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner, nullptr,
                            &list, nullptr, descriptor.put());
  if (error != ERROR_SUCCESS) return std::nullopt;
  return DescribeRights(descriptor.get(), owner, list);
}

DWORD SetOwner(HANDLE file) {
  std::optional<SidBytes> administrators = WellKnownSid(WinBuiltinAdministratorsSid);
  SECURITY_DESCRIPTOR descriptor;
  const bool done =
      administrators && ::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION) &&
      ::SetSecurityDescriptorOwner(&descriptor, administrators->bytes.data(), FALSE) &&
      ::SetKernelObjectSecurity(file, OWNER_SECURITY_INFORMATION, &descriptor);
  return done ? ERROR_SUCCESS : ::GetLastError();
}

// An owner may always change the rights: it goes first.
DWORD SetRights(HANDLE file, bool has_owner, const SECURITY_ATTRIBUTES* rights) {
  const DWORD error = has_owner ? DWORD{ERROR_SUCCESS} : SetOwner(file);
  if (rights == nullptr) return ERROR_INVALID_SECURITY_DESCR;
  if (!::SetKernelObjectSecurity(file,
                                 DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                 rights->lpSecurityDescriptor)) {
    return ::GetLastError();
  }
  return error;
}

void LogFailure(const std::wstring& path, DWORD error) {
  LogMessage(kGeneralError, L"The rights of %s cannot be changed: %hs\n", path.c_str(),
             ErrorInfo(error).text());
}

UniqueFile OpenForRights(const std::wstring& path) {
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  UniqueFile file = OpenWithoutLinks(path, 1, READ_CONTROL | WRITE_DAC | WRITE_OWNER, kShareAll,
                                     OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
  if (file || ::GetLastError() != ERROR_ACCESS_DENIED) return file;
  // The right to change the owner is not everywhere that of the rights.
  return OpenWithoutLinks(path, 1, READ_CONTROL | WRITE_DAC, kShareAll, OPEN_EXISTING,
                          FILE_FLAG_BACKUP_SEMANTICS);
}

void TakeOver(const std::wstring& path, const SECURITY_ATTRIBUTES* rights) {
  const UniqueFile file = OpenForRights(path);
  DWORD error = file ? DWORD{ERROR_SUCCESS} : ::GetLastError();
  if (file) {
    const std::optional<FoundRights> found = ReadRights(file.get(), error);
    error = SetRights(file.get(), found && found->has_owner, rights);
  }
  if (error != ERROR_SUCCESS && error != kLinkRefused) LogFailure(path, error);
}

void TakeOverEntries(const std::wstring& directory) {
  DirectoryListing listing(directory);
  while (const WIN32_FIND_DATAW* entry = listing.Next()) {
    if ((entry->dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) continue;
    const std::wstring path = directory + L'\\' + entry->cFileName;
    const bool is_directory = (entry->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    TakeOver(path, is_directory ? RightsOfOwnDirectory() : RightsOfOwnFile());
    if (is_directory) TakeOverEntries(path);
  }
}

DWORD TakeOverDirectory(HANDLE file, const std::wstring& directory) {
  DWORD error = ERROR_SUCCESS;
  const std::optional<FoundRights> found = ReadRights(file, error);
  if (!found) return error;
  if (found->is_closed && found->others.empty()) return ERROR_SUCCESS;
  error = SetRights(file, found->has_owner, RightsOfOwnDirectory());
  if (found->others.empty()) return error;
  LogMessage(
      kGeneralWarn,
      L"%s had rights for others than SYSTEM and Administrators (%s), who could have changed "
      L"bitmaps: they are taken away\n",
      directory.c_str(), found->others.c_str());
  TakeOverEntries(directory);
  return error;
}

}  // namespace

SECURITY_ATTRIBUTES* RightsOfOwnDirectory() {
  static SECURITY_ATTRIBUTES attributes = MakeAttributes(kDirectoryRights);
  return attributes.lpSecurityDescriptor == nullptr ? nullptr : &attributes;
}

SECURITY_ATTRIBUTES* RightsOfOwnFile() {
  static SECURITY_ATTRIBUTES attributes = MakeAttributes(kFileRights);
  return attributes.lpSecurityDescriptor == nullptr ? nullptr : &attributes;
}

std::uint32_t TakeOverCbtDirectory(const std::wstring& directory) {
  if (::CreateDirectoryW(directory.c_str(), RightsOfOwnDirectory())) return ERROR_SUCCESS;
  const UniqueFile file = OpenForRights(directory);
  DWORD error = file ? DWORD{ERROR_SUCCESS} : ::GetLastError();
  if (error == kLinkRefused) {
    LogMessage(kGeneralError, L"%s is a link, which is not followed: the service does not start\n",
               directory.c_str());
    return error;
  }
  if (file) error = TakeOverDirectory(file.get(), directory);
  if (error != ERROR_SUCCESS) LogFailure(directory, error);
  return ERROR_SUCCESS;
}

}  // namespace zel
