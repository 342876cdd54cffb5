// zelvarpack audio pack, run as a real process.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "media/wav_test_support.h"
#include "tests/temp_dir.h"
#include "tests/tool_runner.h"

namespace {

using zelvarpack::testing::MonoWav;
using zelvarpack::testing::Noise;

ToolRun Tool(const std::string& args) { return RunTool(args, ToolErrors::kMerged); }

TEST(AudioPackCommand, PrintsCountsAndSizes) {
  TempDir dir;
  std::filesystem::create_directory(dir.path() / "work");
  const std::string a = dir.File("a.wav"), b = dir.File("b.wav");
  WriteWholeFile(a, MonoWav(8000, std::string(16000, '\0')));
  WriteWholeFile(b, MonoWav(11, Noise(4, 22)));
  const std::string options =
      "--work " + dir.File("work") + " --index " + dir.File("i") + " --data " + dir.File("d");
  const ToolRun run = Tool("audio pack " + options + " " + a + " " + b);
  ASSERT_EQ(run.status, 0) << run.out;
  const std::string data = ReadWholeFile(dir.File("d"));
  // Silence: one tessera of 10 pieces; noise: 2 pieces of 11 bytes, both
  // louder than silence.
  const std::string head = "pieces: 12\n";
  EXPECT_EQ(run.out.substr(0, head.size()), head);
  EXPECT_NE(run.out.find("\ninput bytes: 16022\n"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("\ndata-file bytes: " + std::to_string(data.size()) + "\n"),
            std::string::npos)
      << run.out;
  const auto records = zelvarpack::testing::InflatedRecords(data);
  EXPECT_NE(run.out.find("\ntesserae started: " + std::to_string(records.size()) + "\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("\none raw-deflate stream in file order: "), std::string::npos);

  WriteWholeFile(b, "RIFF");
  const ToolRun bad = Tool("audio pack " + options + " " + b);
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.out, "zelvarpack audio: " + b + ": Invalid file.\n");
  EXPECT_EQ(Tool("audio pack " + options).status, 2) << "no WAV file";
  EXPECT_EQ(Tool("audio pack --index x --data y " + a).status, 2) << "no work folder";
  EXPECT_EQ(Tool("audio unpack").status, 2);
}

}  // namespace
