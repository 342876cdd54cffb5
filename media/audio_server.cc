// The exported handle functions of CZelvarAudioServer over AudioServer.
#include <fcntl.h>

#include <memory>
#include <string>
#include <vector>

#include "media/media_io.h"
#include "media/tessera_engine.h"
#include "media/wav_reader.h"
#include "zelvarpack/zelvar_audio_server.h"

namespace zelvarpack {

namespace {

// What a handle points to.
class AudioServer : public WavBlockSink {
 public:
  AudioServer(bool writer, std::string workDirectory, std::string indexPath, std::string dataPath,
              std::int32_t setting)
      : writer_(writer),
        workDirectory_(std::move(workDirectory)),
        indexPath_(std::move(indexPath)),
        dataPath_(std::move(dataPath)),
        setting_(setting) {}

  ~AudioServer() override {
    // Publishes the files if Flush did not; unflushed pieces are dropped.
    indexFile_.Close();
    dataFile_.Close();
    CloseFile(indexInput_);
    CloseFile(dataInput_);
  }

  void Write(const char* wavPath) {
    if (wavPath == nullptr) ThrowMediaError(kCouldNotOpenFile);
    if (!engine_) {
      if (writer_) {
        StartWriting();
      } else {
        StartReading();
      }
    }
    WalkWavFile(wavPath, *this, block_);
  }

  void Flush() {
    if (!writer_) return;
    if (!engine_) StartWriting();
    // A reading engine built by Read on this handle has nothing to write.
    if (!indexFile_.IsOpen()) return;
    engine_->Flush(dataFile_);
    indexFile_.Publish();
    dataFile_.Publish();
  }

  void Read() {
    if (!engine_) StartReading();
  }

  void OnBlock(const unsigned char* bytes, std::int64_t n) override { engine_->AddBlock(bytes, n); }

 private:
  void StartWriting() {
    if (!indexFile_.IsOpen()) indexFile_.Open(indexPath_);
    if (!dataFile_.IsOpen()) dataFile_.Open(dataPath_);
    engine_ = std::make_unique<TesseraEngine>(workDirectory_, &indexFile_, setting_);
  }

  void StartReading() {
    if (indexInput_ < 0) indexInput_ = OpenRetrying(indexPath_.c_str(), O_RDONLY);
    if (dataInput_ < 0) dataInput_ = OpenRetrying(dataPath_.c_str(), O_RDONLY);
    if (indexInput_ < 0 || dataInput_ < 0) ThrowMediaError(kCouldNotOpenFile);
    engine_ = std::make_unique<TesseraEngine>(std::string(), nullptr, setting_);
  }

  const bool writer_;
  const std::string workDirectory_;
  const std::string indexPath_;
  const std::string dataPath_;
  const std::int32_t setting_;
  OutputFile indexFile_;
  OutputFile dataFile_;
  int indexInput_ = -1;
  int dataInput_ = -1;
  std::unique_ptr<TesseraEngine> engine_;
  // One block of PCM, reused for every block of every file.
  std::vector<unsigned char> block_;
};

AudioServer* FromHandle(void* handle) { return static_cast<AudioServer*>(handle); }

}  // namespace

}  // namespace zelvarpack

using zelvarpack::AudioServer;
using zelvarpack::CopyPath;
using zelvarpack::FromHandle;

void* CZelvarAudioServer::Create(unsigned char* indexPath, std::int32_t indexPathLength,
                                 unsigned char* dataPath, std::int32_t dataPathLength) {
  return new AudioServer(false, std::string(), CopyPath(indexPath, indexPathLength),
                         CopyPath(dataPath, dataPathLength), 0);
}

void* CZelvarAudioServer::Create(unsigned char* workDirectory, std::int32_t workDirectoryLength,
                                 unsigned char* indexPath, std::int32_t indexPathLength,
                                 unsigned char* dataPath, std::int32_t dataPathLength,
                                 std::int32_t setting) {
  return new AudioServer(true, CopyPath(workDirectory, workDirectoryLength),
                         CopyPath(indexPath, indexPathLength), CopyPath(dataPath, dataPathLength),
                         setting);
}

void CZelvarAudioServer::Write(void* handle, unsigned char* wavPath, std::int32_t) {
  FromHandle(handle)->Write(reinterpret_cast<const char*>(wavPath));
}

void CZelvarAudioServer::Flush(void* handle) { FromHandle(handle)->Flush(); }

void CZelvarAudioServer::Read(void* handle, void*&, void*&, void*&) { FromHandle(handle)->Read(); }

void CZelvarAudioServer::Discard(void*, void*&, void*&) {}

void CZelvarAudioServer::Destroy(void* handle) { delete FromHandle(handle); }
