// Runs the zelvarpack tool as a real process, for the command-line tests:
// the arguments go through the shell, stdout and stderr come back together.
#ifndef ZELVARPACK_TESTS_TOOL_RUN_H_
#define ZELVARPACK_TESTS_TOOL_RUN_H_

#include <sys/wait.h>

#include <cstdio>
#include <string>

struct ToolRun {
  int status;  // the exit status, -1 when the tool did not exit normally
  std::string out;
};

inline ToolRun RunTool(const std::string& args) {
  const std::string command = std::string(ZP_TOOL_PATH) + " " + args + " 2>&1";
  FILE* pipe = ::popen(command.c_str(), "r");
  ToolRun run{-1, ""};
  if (pipe == nullptr) return run;
  char chunk[4096];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) run.out.append(chunk, got);
  const int status = ::pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

#endif  // ZELVARPACK_TESTS_TOOL_RUN_H_
