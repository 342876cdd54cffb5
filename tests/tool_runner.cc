#include "tests/tool_runner.h"

#if !defined(_WIN32)
#include <sys/wait.h>
#endif

#include <cstdio>

#include "tests/temp_dir.h"

#if defined(_WIN32)

namespace {

// A path of the build machine (the tool's, compiled in) as Windows sees it
// under Wine: drive Z: is the root of the Unix file system.
std::string WindowsPath(std::string path) {
  if (!path.empty() && path[0] == '/') path = "Z:" + path;
  for (char& c : path) {
    if (c == '/') c = '\\';
  }
  return path;
}

}  // namespace

// Through cmd.exe: the tests write their arguments for a POSIX shell, with
// single quotes around paths, which cmd.exe reads as double quotes.
ToolRun RunTool(const std::string& args, ToolErrors errors, const std::string& folder) {
  ToolRun run{-1, "", ""};
  TempDir errDir;  // only used for ToolErrors::kKept
  const std::string errFile = errDir.File("stderr");
  std::string quoted = args;
  for (char& c : quoted) {
    if (c == '\'') c = '"';
  }
  std::string command;
  if (!folder.empty()) command = "cd /d \"" + WindowsPath(folder) + "\" && ";
  command += "\"" + WindowsPath(ZP_TOOL_PATH) + "\" " + quoted;
  switch (errors) {
    case ToolErrors::kDropped:
      command += " 2>NUL";
      break;
    case ToolErrors::kMerged:
      command += " 2>&1";
      break;
    case ToolErrors::kKept:
      command += " 2>\"" + WindowsPath(errFile) + "\"";
      break;
  }
  // cmd.exe /c drops the first and the last quote of a command that starts
  // with one; the outer pair keeps the command's own quotes intact.
  FILE* pipe = ::_popen(("\"" + command + "\"").c_str(), "rb");
  if (pipe == nullptr) return run;
  char chunk[4096];
  std::size_t got;
  while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) run.out.append(chunk, got);
  run.status = ::_pclose(pipe);
  if (errors == ToolErrors::kKept) run.err = ReadWholeFile(errFile);
  return run;
}

#else

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

#endif
