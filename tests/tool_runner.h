// Runs the command-line tool (ZP_TOOL_PATH) the way a user's shell would, for
// the tool's tests (compiled into the test binary only). Safe from any thread.
#ifndef ZELVARPACK_TESTS_TOOL_RUNNER_H_
#define ZELVARPACK_TESTS_TOOL_RUNNER_H_

#include <string>

struct ToolRun {
  int status;       // the exit status, or -1 when the tool did not exit normally
  std::string out;  // standard output (with standard error when redirected there)
  std::string err;  // standard error, when kept apart (ToolErrors::kKept)
};

// What becomes of the tool's standard error.
enum class ToolErrors {
  kDropped,  // 2>/dev/null
  kMerged,   // 2>&1: interleaved with standard output in `out`
  kKept,     // kept apart in `err`
};

// Runs the tool with `args` (shell words) through /bin/sh. With a `folder`,
// the tool runs inside it.
ToolRun RunTool(const std::string& args, ToolErrors errors = ToolErrors::kDropped,
                const std::string& folder = "");

#endif  // ZELVARPACK_TESTS_TOOL_RUNNER_H_
