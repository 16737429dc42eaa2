#include "prove/kit.h"

#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "prove/steps.h"

namespace zel::prove {

namespace {

constexpr DWORD kPollMs = 20;

UniqueFile Open(const std::filesystem::path& path, DWORD access, DWORD disposition) {
  SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
  return UniqueFile(::CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  &inherited, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
}

// A job whose processes end when its last handle is closed, which a process that is killed does
// too.
UniqueResource<KernelObjectTraits> MakeJob() {
  UniqueResource<KernelObjectTraits> job(::CreateJobObjectW(nullptr, nullptr));
  JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
  limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
  ::SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
  return job;
}

}  // namespace

std::string ToUtf8(std::wstring_view text) {
  const std::u8string bytes = std::filesystem::path(text).u8string();
  return std::string(bytes.begin(), bytes.end());
}

std::wstring ToWide(std::string_view text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end())).wstring();
}

std::wstring Quoted(const std::filesystem::path& path) {
  return L"\"" + path.wstring() + L"\"";
}

std::string ReadFileText(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  return file.bad() ? std::string() : text;
}

Kit::Kit(std::filesystem::path folder)
    : folder_(std::move(folder)),
      interrupted_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      job_(MakeJob()) {}

bool Kit::interrupted() const {
  return ::WaitForSingleObject(interrupted_.get(), 0) == WAIT_OBJECT_0;
}

ProgramRun Kit::Run(std::wstring command_line, const ProgramSetting& setting) const {
  const std::filesystem::path folder = setting.folder.empty() ? work() : setting.folder;
  PROCESS_INFORMATION made = {};
  {
    // Let go of before the output is read: the program has handles of its own.
    const UniqueFile input =
        Open(setting.input.empty() ? L"NUL" : setting.input, GENERIC_READ, OPEN_EXISTING);
    const UniqueFile output = Open(output_file(), GENERIC_WRITE, CREATE_ALWAYS);
    Require(input && output, "cannot open the files for a program's input and output: error " +
                                 std::to_string(::GetLastError()));
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = input.get();
    startup.hStdOutput = startup.hStdError = output.get();
    // Suspended until it is in the job, so that none of its children are outside.
    const bool started =
        ::CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED,
                         nullptr, folder.c_str(), &startup, &made);
    const DWORD error = ::GetLastError();
    Require(started, "cannot start " + ToUtf8(command_line) + ": error " + std::to_string(error));
  }
  const UniqueResource<KernelObjectTraits> process(made.hProcess);
  const UniqueThread thread(made.hThread);
  ::AssignProcessToJobObject(job_.get(), process.get());
  ::ResumeThread(thread.get());
  const HANDLE events[] = {process.get(), interrupted_.get()};
  const DWORD ended =
      ::WaitForMultipleObjects(heeds_interrupts_ ? 2 : 1, events, FALSE, setting.limit_ms);
  if (ended != WAIT_OBJECT_0) {
    ::TerminateJobObject(job_.get(), 1);  // with its children
    ::TerminateProcess(process.get(), 1);
    ::WaitForSingleObject(process.get(), INFINITE);
  }
  // Ctrl+C goes to the programs of the console, too: one may have ended by it.
  if (heeds_interrupts_ && interrupted()) throw Interrupted();
  ProgramRun run;
  ::GetExitCodeProcess(process.get(), &run.exit_code);
  run.timed_out = ended == WAIT_TIMEOUT;
  run.output = ReadFileText(output_file());
  return run;
}

void Kit::Pause(const char* what, ULONGLONG end) const {
  Require(::GetTickCount64() < end, std::string("waited in vain: ") + what);
  if (!heeds_interrupts_) {
    ::Sleep(kPollMs);
  } else if (::WaitForSingleObject(interrupted_.get(), kPollMs) == WAIT_OBJECT_0) {
    throw Interrupted();
  }
}

}  // namespace zel::prove
