#include "zelvarpack/zelvar_utils.h"

#include <chrono>
#include <thread>

#include "core/background_work.h"
#include "core/file_lock.h"

namespace {

constexpr auto kRetryInterval = std::chrono::milliseconds(100);

FILE* OpenWaiting(const std::string& path, zelvarpack::FileShare share) {
  FILE* file = zelvarpack::TryOpenLocked(path.c_str(), share);
  while (file == nullptr) {
    std::this_thread::sleep_for(kRetryInterval);
    file = zelvarpack::TryOpenLocked(path.c_str(), share);
  }
  return file;
}

}  // namespace

CZelvarUtils::CZelvarUtils() = default;
CZelvarUtils::~CZelvarUtils() = default;

FILE* CZelvarUtils::OpenFileForReading(std::string path) {
  // A missing file is never waited for.
  if (!zelvarpack::PathExists(path.c_str())) return nullptr;
  return OpenWaiting(path, zelvarpack::FileShare::kReaders);
}

FILE* CZelvarUtils::OpenFileForWriting(std::string path) {
  return OpenWaiting(path, zelvarpack::FileShare::kAlone);
}

bool CZelvarUtils::StopBackgroundWork(std::int32_t timeoutMilliseconds) {
  return zelvarpack::StopBackgroundWork(
      std::chrono::milliseconds(timeoutMilliseconds < 0 ? 0 : timeoutMilliseconds));
}
