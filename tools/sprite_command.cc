// zelvarpack sprite and zelvarpack sprite get.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "image/sprite_sheet.h"
#include "tools/cli.h"
#include "zelvarpack/zelvar_image_server.h"

using zelvarpack::cli::Arguments;
using zelvarpack::cli::Fail;

namespace {

constexpr const char* kSetNames[] = {"gif", "jpg", "png24", "png32"};

struct Input {
  std::string path;
  std::string width, height;
  std::string margins[4];  // bottom, left, right, top
};

// "WxH": either side may be empty (keep the decoded one).
void ParseSize(const std::string& text, Input& input) {
  const std::size_t cross = text.find('x');
  if (cross == std::string::npos) Fail("--size wants WxH, not '" + text + "'");
  input.width = text.substr(0, cross);
  input.height = text.substr(cross + 1);
}

void ParseMargins(const std::string& text, Input& input) {
  std::size_t start = 0;
  for (int i = 0; i < 4; ++i) {
    const std::size_t comma = text.find(',', start);
    if ((i < 3) == (comma == std::string::npos))
      Fail("--margins wants B,L,R,T, not '" + text + "'");
    input.margins[i] = text.substr(start, i < 3 ? comma - start : std::string::npos);
    start = comma + 1;
  }
}

std::string IndexText(const CZelvarImageEntry& entry) {
  std::string line = zelvarpack::image::FormatIndexLine(entry);
  line.pop_back();
  return line;
}

int RunSpriteBuild(Arguments& args) {
  std::string cache = ".";
  std::vector<Input> inputs;
  Input next;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--cache") {
      cache = args.TakeValue(arg);
    } else if (arg == "--size") {
      ParseSize(args.TakeValue(arg), next);
    } else if (arg == "--margins") {
      ParseMargins(args.TakeValue(arg), next);
    } else if (Arguments::IsOption(arg)) {
      Fail("unknown option " + arg);
    } else {
      next.path = arg;
      inputs.push_back(next);
      next = Input{};
    }
  }
  if (inputs.empty()) Fail("expected at least one IMAGE");
  CZelvarImageServer server(cache.data());
  for (const Input& input : inputs) {
    const std::string bytes = zelvarpack::cli::ReadInput(input.path);
    server.AddImage(reinterpret_cast<const unsigned char*>(bytes.data()),
                    static_cast<std::int32_t>(bytes.size()), input.width.c_str(),
                    input.height.c_str(), input.margins[0].c_str(), input.margins[1].c_str(),
                    input.margins[2].c_str(), input.margins[3].c_str());
  }
  std::vector<std::int32_t> sets(inputs.size());
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    sets[i] = server.RouteImage(static_cast<std::int32_t>(i));
    if (sets[i] < 0) {
      std::fprintf(stderr,
                   "zelvarpack sprite: %s left out (not a single-frame GIF, JPEG or PNG "
                   "within the limits)\n",
                   inputs[i].path.c_str());
    }
  }
  for (std::int32_t set = 0; set < 4; ++set) {
    std::vector<std::size_t> members;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      if (sets[i] == set) members.push_back(i);
    }
    const std::string id = server.BuildSheet(static_cast<CZelvarImageServer::SheetKind>(set));
    if (members.empty()) {
      std::printf("%s - no images\n", kSetNames[set]);
      continue;
    }
    std::printf("%s %s\n", kSetNames[set], id.empty() ? "- no sheet worth making" : id.c_str());
    for (const std::size_t i : members) {
      CZelvarImageEntry entry;
      const std::string place = server.GetImageEntry(static_cast<std::int32_t>(i), entry)
                                    ? IndexText(entry)
                                    : std::string("- sheet too large");
      std::printf("  %s %s\n", place.c_str(), inputs[i].path.c_str());
    }
  }
  return 0;
}

int RunSpriteGet(Arguments& args) {
  std::string cache = ".";
  std::string output;
  std::vector<std::string> operands;
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--cache") {
      cache = args.TakeValue(arg);
    } else if (arg == "-o") {
      output = args.TakeValue(arg);
    } else if (Arguments::IsOption(arg)) {
      Fail("unknown option " + arg);
    } else {
      operands.push_back(arg);
    }
  }
  if (operands.size() != 2) Fail("expected gif|jpg|png24|png32 and an ID");
  if (output.empty()) Fail("expected -o FILE");
  CZelvarImageServer server(cache.data());
  CZelvarImages* (CZelvarImageServer::*const getters[])(std::string) = {
      &CZelvarImageServer::GetGifId, &CZelvarImageServer::GetJpgId, &CZelvarImageServer::GetPng24Id,
      &CZelvarImageServer::GetPng32Id};
  int kind = -1;
  for (int i = 0; i < 4; ++i) {
    if (operands[0] == kSetNames[i]) kind = i;
  }
  if (kind < 0)
    Fail("unknown sheet kind '" + operands[0] + "' (expected gif, jpg, png24 or png32)");
  const std::unique_ptr<CZelvarImages> images((server.*getters[kind])(operands[1]));
  if (!images) {
    std::fprintf(stderr, "zelvarpack sprite get: no %s sheet is stored under %s\n",
                 operands[0].c_str(), operands[1].c_str());
    return 1;
  }
  bool wasGzip = false;
  CZelvarBuffer* sheet = images->GetRawImageZelvarBuffer(wasGzip);
  FILE* out = std::fopen(output.c_str(), "wb");
  if (out == nullptr) Fail("cannot open " + output + ": " + std::strerror(errno));
  const auto size = static_cast<std::size_t>(sheet->GetValueLength());
  const bool written = std::fwrite(sheet->GetValue(), 1, size, out) == size;
  if (std::fclose(out) != 0 || !written) throw std::runtime_error("cannot write " + output);
  for (std::int32_t i = 0; i < images->GetEntryCount(); ++i) {
    std::fputs(zelvarpack::image::FormatIndexLine(images->GetEntry(i)).c_str(), stdout);
  }
  return 0;
}

}  // namespace

int RunSprite(Arguments& args) {
  if (args.Done()) Fail("expected IMAGE... or 'get'");
  Arguments rest = args;
  if (rest.Take() == "get") return RunSpriteGet(rest);
  return RunSpriteBuild(args);
}
