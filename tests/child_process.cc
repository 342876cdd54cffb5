// Test support shared by the suites (compiled into the test binary only).
#include "tests/child_process.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#ifndef _WIN32
extern char** environ;
#endif

namespace {

// The child inherits the environment as it is when it starts; the parent's
// own is restored right after.
void SetVariable(const char* name, const char* value) {
#ifdef _WIN32
  ::_putenv_s(name, value == nullptr ? "" : value);
#else
  if (value == nullptr) {
    ::unsetenv(name);
  } else {
    ::setenv(name, value, 1);
  }
#endif
}

}  // namespace

ChildProcess::ChildProcess(std::initializer_list<std::pair<const char*, std::string>> variables) {
  for (const auto& [name, value] : variables) SetVariable(name, value.c_str());
#ifdef _WIN32
  wchar_t self[MAX_PATH];
  const DWORD length = ::GetModuleFileNameW(nullptr, self, MAX_PATH);
  if (length > 0 && length < MAX_PATH) {
    std::wstring commandLine = L"\"" + std::wstring(self) + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (::CreateProcessW(self, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                         &startup, &process)) {
      ::CloseHandle(process.hThread);
      handle_ = reinterpret_cast<std::intptr_t>(process.hProcess);
    }
  }
#else
  char self[] = "/proc/self/exe";
  char* const arguments[] = {self, nullptr};
  pid_t pid = 0;
  if (::posix_spawn(&pid, self, nullptr, nullptr, arguments, environ) == 0) handle_ = pid;
#endif
  for (const auto& variable : variables) SetVariable(variable.first, nullptr);
}

ChildProcess::~ChildProcess() {
  if (Started()) Wait();
}

int ChildProcess::Wait() {
  if (!Started()) return -1;
#ifdef _WIN32
  const auto process = reinterpret_cast<HANDLE>(handle_);
  DWORD status = 0;
  const bool exited = ::WaitForSingleObject(process, INFINITE) == WAIT_OBJECT_0 &&
                      ::GetExitCodeProcess(process, &status);
  ::CloseHandle(process);
  handle_ = 0;
  return exited && !killed_ ? static_cast<int>(status) : -1;
#else
  int status = 0;
  const bool exited = ::waitpid(static_cast<pid_t>(handle_), &status, 0) == handle_;
  handle_ = 0;
  return exited && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
}

void ChildProcess::Kill() {
  if (!Started()) return;
  killed_ = true;
#ifdef _WIN32
  ::TerminateProcess(reinterpret_cast<HANDLE>(handle_), 1);
#else
  ::kill(static_cast<pid_t>(handle_), SIGKILL);
#endif
}

bool WaitForPath(const std::string& path) {
  for (int i = 0; i < 6000; ++i) {
    std::error_code ignored;
    if (std::filesystem::exists(path, ignored)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

void ExitChild(int status) {
  std::fflush(nullptr);
  std::_Exit(status);
}
