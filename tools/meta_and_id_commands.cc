// zelvarpack meta and zelvarpack id.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/identifiers.h"
#include "tools/cli.h"
#include "zelvarpack/meta_finder.h"

using zelvarpack::cli::Arguments;
using zelvarpack::cli::Fail;

int RunMeta(Arguments& args) {
  std::string path;
  bool havePath = false;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (Arguments::IsOption(arg)) Fail("unknown option " + arg);
    if (havePath) Fail("only one input file may be given");
    path = arg;
    havePath = true;
  }
  std::string page = zelvarpack::cli::ReadInput(path);
  void* finder = CMetaFinder::Create();
  CMetaFinder::AddWork(finder, reinterpret_cast<unsigned char*>(page.data()),
                       static_cast<std::int32_t>(page.size()));
  CMetaFinder::DoWork(finder);
  std::int32_t found = 0;
  CMetaFinder::Destroy(finder, found);
  std::printf("%d\n", static_cast<int>(found));
  return 0;
}

namespace {

std::int32_t ParseNumber(const std::string& text) {
  errno = 0;
  char* end = nullptr;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno == ERANGE || value < INT32_MIN || value > INT32_MAX) {
    Fail("'" + text + "' is not a signed 32-bit number");
  }
  return static_cast<std::int32_t>(value);
}

}  // namespace

int RunId(Arguments& args) {
  if (args.Done()) Fail("expected --number N or --content FILE");
  const std::string option = args.Take();
  std::string id;
  if (option == "--number") {
    id = IdFromNumber(ParseNumber(args.TakeValue(option)));
  } else if (option == "--content") {
    const std::string bytes = zelvarpack::cli::ReadInput(args.TakeValue(option));
    id = ContentId(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  } else {
    Fail("unknown option " + option);
  }
  if (!args.Done()) Fail("unexpected argument " + args.Take());
  std::printf("%s\n", id.c_str());
  return 0;
}
