// The few COM shapes the library needs to hand a file to stream-based
// consumers: an IID type, HRESULT codes, and the IUnknown / ISequentialStream
// / IStream interfaces in their standard slot order. On Windows they are the
// system's own (so a CZelvarStream is a real COM object that system
// components can call); elsewhere they are defined here with the same
// layout, so that no platform header is required.
#ifndef ZELVARPACK_CORE_COM_TYPES_H_
#define ZELVARPACK_CORE_COM_TYPES_H_

#include <cstdint>

#ifdef _WIN32

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <objidl.h>
#include <windows.h>

// The calling convention of COM methods.
#define ZP_COM_CALL STDMETHODCALLTYPE

#else  // !_WIN32

#define ZP_COM_CALL

using HRESULT = std::int32_t;
using ULONG = std::uint32_t;
using DWORD = std::uint32_t;

constexpr HRESULT S_OK = 0;
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
constexpr HRESULT E_NOINTERFACE = static_cast<HRESULT>(0x80004002u);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
constexpr HRESULT STG_E_INVALIDFUNCTION = static_cast<HRESULT>(0x80030001u);

struct IID {
  std::uint32_t data1;
  std::uint16_t data2;
  std::uint16_t data3;
  std::uint8_t data4[8];
  friend bool operator==(const IID&, const IID&) = default;
};
using REFIID = const IID&;

extern const IID IID_IUnknown;
extern const IID IID_ISequentialStream;
extern const IID IID_IStream;

union LARGE_INTEGER {
  std::int64_t QuadPart;
};
union ULARGE_INTEGER {
  std::uint64_t QuadPart;
};

// Only cbSize is ever filled in by this library.
struct STATSTG {
  char16_t* pwcsName;
  DWORD type;
  ULARGE_INTEGER cbSize;
  std::int64_t mtime;
  std::int64_t ctime;
  std::int64_t atime;
  DWORD grfMode;
  DWORD grfLocksSupported;
  IID clsid;
  DWORD grfStateBits;
  DWORD reserved;
};

class IUnknown {
 public:
  virtual HRESULT QueryInterface(REFIID riid, void** object) = 0;
  virtual ULONG AddRef() = 0;
  virtual ULONG Release() = 0;

 protected:
  ~IUnknown() = default;
};

class ISequentialStream : public IUnknown {
 public:
  virtual HRESULT Read(void* buffer, ULONG count, ULONG* read) = 0;
  virtual HRESULT Write(const void* buffer, ULONG count, ULONG* written) = 0;

 protected:
  ~ISequentialStream() = default;
};

class IStream : public ISequentialStream {
 public:
  virtual HRESULT Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* new_position) = 0;
  virtual HRESULT SetSize(ULARGE_INTEGER size) = 0;
  virtual HRESULT CopyTo(IStream* target, ULARGE_INTEGER count, ULARGE_INTEGER* read,
                         ULARGE_INTEGER* written) = 0;
  virtual HRESULT Commit(DWORD flags) = 0;
  virtual HRESULT Revert() = 0;
  virtual HRESULT LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER count, DWORD type) = 0;
  virtual HRESULT UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER count, DWORD type) = 0;
  virtual HRESULT Stat(STATSTG* stat, DWORD flags) = 0;
  virtual HRESULT Clone(IStream** clone) = 0;

 protected:
  ~IStream() = default;
};

#endif  // _WIN32

// An operating-system error code as an HRESULT: positive codes get the
// system facility, zero and negative values pass through unchanged.
constexpr HRESULT HresultFromSystemError(std::int32_t error) {
  return error > 0
             ? static_cast<HRESULT>(0x80070000u | (static_cast<std::uint32_t>(error) & 0xFFFFu))
             : error;
}

#endif  // ZELVARPACK_CORE_COM_TYPES_H_
