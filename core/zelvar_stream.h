// CZelvarStream is a read-only IStream over a file that its creator opened
// and keeps owning: releasing the last reference deletes the stream but never
// closes the file. The reference count may be changed from any thread; reads
// and seeks are not serialised.
#ifndef ZELVARPACK_CORE_ZELVAR_STREAM_H_
#define ZELVARPACK_CORE_ZELVAR_STREAM_H_

#include <atomic>
#include <cstdio>

#include "core/com_types.h"

class CZelvarStream final : public IStream {
 public:
  // Starts with one reference, owned by the creator.
  // REQUIRES: file is open for binary reading and outlives the stream.
  explicit CZelvarStream(FILE* file);
  CZelvarStream(const CZelvarStream&) = delete;
  CZelvarStream& operator=(const CZelvarStream&) = delete;

  HRESULT ZP_COM_CALL QueryInterface(REFIID riid, void** object) override;
  ULONG ZP_COM_CALL AddRef() override;
  ULONG ZP_COM_CALL Release() override;
  // One read on the descriptor behind the FILE*; S_OK also on a short read.
  HRESULT ZP_COM_CALL Read(void* buffer, ULONG count, ULONG* read) override;
  HRESULT ZP_COM_CALL Write(const void* buffer, ULONG count, ULONG* written) override;
  // Origins 0, 1 and 2 are begin, current and end.
  HRESULT ZP_COM_CALL Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* new_position) override;
  HRESULT ZP_COM_CALL SetSize(ULARGE_INTEGER size) override;
  HRESULT ZP_COM_CALL CopyTo(IStream* target, ULARGE_INTEGER count, ULARGE_INTEGER* read,
                             ULARGE_INTEGER* written) override;
  HRESULT ZP_COM_CALL Commit(DWORD flags) override;
  HRESULT ZP_COM_CALL Revert() override;
  HRESULT ZP_COM_CALL LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER count, DWORD type) override;
  HRESULT ZP_COM_CALL UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER count,
                                   DWORD type) override;
  // Fills only stat->cbSize.
  HRESULT ZP_COM_CALL Stat(STATSTG* stat, DWORD flags) override;
  HRESULT ZP_COM_CALL Clone(IStream** clone) override;

 private:
  ~CZelvarStream() = default;

  FILE* file_;
  std::atomic<ULONG> refCount_{1};
};

#endif  // ZELVARPACK_CORE_ZELVAR_STREAM_H_
