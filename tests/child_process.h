// A second copy of the running test program, for tests that need another
// process (file sharing between processes, a writer killed mid-write). The
// same on every platform: posix_spawn of /proc/self/exe here,
// CreateProcess of the program's own file on Windows (also under Wine).
//
// The parent tells the child what to do through environment variables. The
// child's test file checks them in a static initializer:
//   const bool kIsChild = PlayChildPartIfAsked("ZP_MY_PART", MyPart);
// which in the child plays the part before any test runs and exits with its
// status, and in the parent is false. Compiled into the test binary only.
#ifndef ZELVARPACK_TESTS_CHILD_PROCESS_H_
#define ZELVARPACK_TESTS_CHILD_PROCESS_H_

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>

class ChildProcess {
 public:
  // Starts the copy with `variables` added to its environment.
  explicit ChildProcess(std::initializer_list<std::pair<const char*, std::string>> variables);
  // Waits for a child still running.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Started() const { return handle_ != 0; }
  // The child's exit status; -1 when it did not exit normally, was killed
  // or was never started.
  int Wait();
  // Ends the child at once, wherever it is (SIGKILL, TerminateProcess).
  void Kill();

 private:
  std::intptr_t handle_ = 0;  // the process id, or the process handle on Windows
  bool killed_ = false;
};

// True when `path` exists within about a minute (polled every 10 ms).
bool WaitForPath(const std::string& path);

// Exits the program with `status` after flushing the standard streams.
[[noreturn]] void ExitChild(int status);

// When the environment variable `name` is set and not empty, plays
// `part(value)` (returning the exit status) and exits; otherwise false.
template <typename Part>
bool PlayChildPartIfAsked(const char* name, Part part) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return false;
  ExitChild(part(value));
}

#endif  // ZELVARPACK_TESTS_CHILD_PROCESS_H_
