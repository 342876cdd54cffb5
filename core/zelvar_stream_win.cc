// Windows side of CZelvarStream: a real COM IStream whose reads, seeks and
// size go to the system file handle behind the caller's FILE*
// (_get_osfhandle(_fileno(file))), bypassing the C runtime's buffer.
#include <io.h>

#include "core/zelvar_stream.h"

namespace {

HANDLE SystemHandle(FILE* file) {
  return reinterpret_cast<HANDLE>(::_get_osfhandle(::_fileno(file)));
}

HRESULT LastSystemError() {
  return HresultFromSystemError(static_cast<std::int32_t>(::GetLastError()));
}

}  // namespace

CZelvarStream::CZelvarStream(FILE* file) : file_(file) {}

HRESULT ZP_COM_CALL CZelvarStream::QueryInterface(REFIID riid, void** object) {
  if (object == nullptr) return E_POINTER;
  if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IStream) ||
      IsEqualIID(riid, IID_ISequentialStream)) {
    *object = this;
    AddRef();
    return S_OK;
  }
  *object = nullptr;  // COM's rule for a refused interface
  return E_NOINTERFACE;
}

ULONG ZP_COM_CALL CZelvarStream::AddRef() {
  return refCount_.fetch_add(1, std::memory_order_relaxed) + 1;
}

ULONG ZP_COM_CALL CZelvarStream::Release() {
  const ULONG count = refCount_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (count == 0) delete this;
  return count;
}

HRESULT ZP_COM_CALL CZelvarStream::Read(void* buffer, ULONG count, ULONG* read) {
  DWORD got = 0;
  const BOOL ok = ::ReadFile(SystemHandle(file_), buffer, count, &got, nullptr);
  if (read != nullptr) *read = got;
  return ok ? S_OK : LastSystemError();
}

HRESULT ZP_COM_CALL CZelvarStream::Write(const void*, ULONG, ULONG*) { return E_NOTIMPL; }

HRESULT ZP_COM_CALL CZelvarStream::Seek(LARGE_INTEGER move, DWORD origin,
                                        ULARGE_INTEGER* new_position) {
  static constexpr DWORD kMethod[] = {FILE_BEGIN, FILE_CURRENT, FILE_END};
  if (origin > 2) return STG_E_INVALIDFUNCTION;
  LARGE_INTEGER position{};
  if (!::SetFilePointerEx(SystemHandle(file_), move, &position, kMethod[origin])) {
    return LastSystemError();
  }
  if (new_position != nullptr) new_position->QuadPart = static_cast<ULONGLONG>(position.QuadPart);
  return S_OK;
}

HRESULT ZP_COM_CALL CZelvarStream::SetSize(ULARGE_INTEGER) { return E_NOTIMPL; }
HRESULT ZP_COM_CALL CZelvarStream::CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*,
                                          ULARGE_INTEGER*) {
  return E_NOTIMPL;
}
HRESULT ZP_COM_CALL CZelvarStream::Commit(DWORD) { return E_NOTIMPL; }
HRESULT ZP_COM_CALL CZelvarStream::Revert() { return E_NOTIMPL; }
HRESULT ZP_COM_CALL CZelvarStream::LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) {
  return E_NOTIMPL;
}
HRESULT ZP_COM_CALL CZelvarStream::UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) {
  return E_NOTIMPL;
}
HRESULT ZP_COM_CALL CZelvarStream::Clone(IStream**) { return E_NOTIMPL; }

HRESULT ZP_COM_CALL CZelvarStream::Stat(STATSTG* stat, DWORD) {
  if (stat == nullptr) return E_POINTER;
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(SystemHandle(file_), &size)) return LastSystemError();
  stat->cbSize.QuadPart = static_cast<ULONGLONG>(size.QuadPart);
  return S_OK;
}
