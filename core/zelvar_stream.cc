#include "core/zelvar_stream.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

const IID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
const IID IID_ISequentialStream = {
    0x0C733A30, 0x2A1C, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x07, 0x7D}};
const IID IID_IStream = {0x0000000C, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

CZelvarStream::CZelvarStream(FILE* file) : file_(file) {}

HRESULT CZelvarStream::QueryInterface(REFIID riid, void** object) {
  if (object == nullptr) return E_POINTER;
  if (riid == IID_IUnknown || riid == IID_IStream || riid == IID_ISequentialStream) {
    *object = this;
    AddRef();
    return S_OK;
  }
  return E_NOINTERFACE;
}

ULONG CZelvarStream::AddRef() { return refCount_.fetch_add(1, std::memory_order_relaxed) + 1; }

ULONG CZelvarStream::Release() {
  const ULONG count = refCount_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (count == 0) delete this;
  return count;
}

HRESULT CZelvarStream::Read(void* buffer, ULONG count, ULONG* read) {
  ssize_t got;
  do {
    got = ::read(fileno(file_), buffer, count);
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    if (read != nullptr) *read = 0;
    return HresultFromSystemError(errno);
  }
  if (read != nullptr) *read = static_cast<ULONG>(got);
  return S_OK;
}

HRESULT CZelvarStream::Write(const void*, ULONG, ULONG*) { return E_NOTIMPL; }

HRESULT CZelvarStream::Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* new_position) {
  static constexpr int kWhence[] = {SEEK_SET, SEEK_CUR, SEEK_END};
  if (origin > 2) return STG_E_INVALIDFUNCTION;
  const off_t position = ::lseek(fileno(file_), move.QuadPart, kWhence[origin]);
  if (position < 0) return HresultFromSystemError(errno);
  if (new_position != nullptr) new_position->QuadPart = static_cast<std::uint64_t>(position);
  return S_OK;
}

HRESULT CZelvarStream::SetSize(ULARGE_INTEGER) { return E_NOTIMPL; }
HRESULT CZelvarStream::CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) {
  return E_NOTIMPL;
}
HRESULT CZelvarStream::Commit(DWORD) { return E_NOTIMPL; }
HRESULT CZelvarStream::Revert() { return E_NOTIMPL; }
HRESULT CZelvarStream::LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) { return E_NOTIMPL; }
HRESULT CZelvarStream::UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) { return E_NOTIMPL; }
HRESULT CZelvarStream::Clone(IStream**) { return E_NOTIMPL; }

HRESULT CZelvarStream::Stat(STATSTG* stat, DWORD) {
  struct stat info;
  if (::fstat(fileno(file_), &info) != 0) return HresultFromSystemError(errno);
  stat->cbSize.QuadPart = static_cast<std::uint64_t>(info.st_size);
  return S_OK;
}
