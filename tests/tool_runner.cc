#include "tests/tool_runner.h"

#include <sys/wait.h>

#include <cstdio>

#include "tests/temp_dir.h"

ToolRun RunTool(const std::string& args, ToolErrors errors, const std::string& folder) {
  ToolRun run{-1, "", ""};
  TempDir errDir;  // only used for ToolErrors::kKept
  const std::string errFile = errDir.File("stderr");
  std::string command;
  if (!folder.empty()) command = "cd '" + folder + "' && ";
  command += std::string(ZP_TOOL_PATH) + " " + args;
  switch (errors) {
    case ToolErrors::kDropped:
      command += " 2>/dev/null";
      break;
    case ToolErrors::kMerged:
      command += " 2>&1";
      break;
    case ToolErrors::kKept:
      command += " 2>'" + errFile + "'";
      break;
  }
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return run;
  char chunk[4096];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) run.out.append(chunk, got);
  const int status = ::pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (errors == ToolErrors::kKept) run.err = ReadWholeFile(errFile);
  return run;
}
