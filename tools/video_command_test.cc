// zelvarpack video pack and video frame, run as a real process.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "media/video_test_frames.h"
#include "tests/temp_dir.h"
#include "tests/tool_runner.h"

namespace {

using zelvarpack::testing::AsJpeg;
using zelvarpack::testing::AsPng;

TEST(VideoCommand, PacksFramesAndRebuildsOneAsPng) {
  TempDir dir;
  std::filesystem::create_directory(dir.path() / "work");
  namespace image = zelvarpack::image;
  const std::string a = dir.File("a.jpg"), b = dir.File("b.png");
  WriteWholeFile(a, AsJpeg(image::NewCanvas(1920, 1080, 30, 30, 30, 255)));
  WriteWholeFile(b, AsPng(image::NewCanvas(1920, 1080, 200, 100, 50, 255)));
  const std::string files = " --index " + dir.File("i") + " --data " + dir.File("d");
  const ToolRun pack = RunTool("video pack --work " + dir.File("work") + files + " " + a + " " + b,
                               ToolErrors::kMerged);
  ASSERT_EQ(pack.status, 0) << pack.out;
  const auto inputBytes = std::filesystem::file_size(a) + std::filesystem::file_size(b);
  const auto outputBytes =
      std::filesystem::file_size(dir.File("i")) + std::filesystem::file_size(dir.File("d"));
  // Two flat frames of different brightness: one tessera each.
  EXPECT_EQ(pack.out, "frames: 2\ntiles: 450\ntesserae started: 2\ninput bytes: " +
                          std::to_string(inputBytes) +
                          "\noutput bytes: " + std::to_string(outputBytes) + " (index 2250, data " +
                          std::to_string(outputBytes - 2250) + ")\n");

  const std::string png = dir.File("out.png");
  const ToolRun frame = RunTool("video frame" + files + " 1 -o " + png, ToolErrors::kMerged);
  ASSERT_EQ(frame.status, 0) << frame.out;
  const image::RgbaImage rebuilt = zelvarpack::testing::Decode(ReadWholeFile(png));
  ASSERT_EQ(rebuilt.width, 1920);
  ASSERT_EQ(rebuilt.height, 1080);
  EXPECT_NEAR(rebuilt.At(1000, 500)[0], 200, 2);
  EXPECT_NEAR(rebuilt.At(1000, 500)[2], 50, 2);

  const ToolRun missing = RunTool("video frame" + files + " 2 -o " + png, ToolErrors::kMerged);
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "zelvarpack video: frame 2 is not in the index (2 frames)\n");
  WriteWholeFile(b, "not a picture");
  const ToolRun bad =
      RunTool("video pack --work " + dir.File("work") + files + " " + b, ToolErrors::kMerged);
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.out, "zelvarpack video: " + b + ": Invalid file.\n");
  EXPECT_EQ(RunTool("video pack" + files + " " + a, ToolErrors::kMerged).status, 2)
      << "no work folder";
  EXPECT_EQ(RunTool("video frame" + files + " x -o " + png, ToolErrors::kMerged).status, 2);
  EXPECT_EQ(RunTool("video frame" + files + " 0", ToolErrors::kMerged).status, 2) << "no -o";
  EXPECT_EQ(RunTool("video play", ToolErrors::kMerged).status, 2);
}

}  // namespace
