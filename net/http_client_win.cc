// The HTTP seam on Windows, over WinHTTP: one synchronous GET per call on a
// session of its own, closed before the call returns.
//
// Call sequence: WinHttpOpen (no agent, no proxy) / WinHttpSetTimeouts (the
// same limit for resolving, connecting, sending and receiving) /
// WinHttpConnect (port 443 for a secure request, else 80) /
// WinHttpOpenRequest (GET, the path as given, secure flag for TLS) /
// WinHttpSetOption (authentication, cookies and keep-alive switched off;
// redirects followed, never from https to http) / one
// WinHttpAddRequestHeaders per header line / WinHttpSendRequest /
// WinHttpReceiveResponse / WinHttpQueryHeaders / WinHttpQueryDataAvailable
// and WinHttpReadData until the body ends.
#include <windows.h>
// windows.h first: the two below need its types.
#include <wincrypt.h>
#include <winhttp.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/background_work.h"
#include "net/http_client.h"

namespace zelvarpack::net {

namespace {

constexpr DWORD kMaxRedirects = 10;

std::mutex& TrustMutex() {
  static std::mutex mutex;
  return mutex;
}

std::string& TrustedCertificates() {
  static std::string file;  // guarded by TrustMutex()
  return file;
}

std::string TestTrustFile() {
  std::lock_guard<std::mutex> lock(TrustMutex());
  return TrustedCertificates();
}

struct CertificateFreer {
  void operator()(const CERT_CONTEXT* certificate) const {
    if (certificate != nullptr) CertFreeCertificateContext(certificate);
  }
};
using Certificate = std::unique_ptr<const CERT_CONTEXT, CertificateFreer>;

// Tests only: true when the server's certificate was issued for `host` (its
// common name) and signed by the authority in the PEM file `caFile`.
bool IssuedByTestAuthority(HINTERNET request, const std::string& caFile, const std::string& host) {
  std::ifstream in(caFile, std::ios::binary);
  const std::string pem((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  DWORD size = 0;
  if (pem.empty() ||
      !CryptStringToBinaryA(pem.data(), static_cast<DWORD>(pem.size()), CRYPT_STRING_BASE64HEADER,
                            nullptr, &size, nullptr, nullptr)) {
    return false;
  }
  std::string der(size, '\0');
  if (!CryptStringToBinaryA(pem.data(), static_cast<DWORD>(pem.size()), CRYPT_STRING_BASE64HEADER,
                            reinterpret_cast<BYTE*>(der.data()), &size, nullptr, nullptr)) {
    return false;
  }
  const Certificate authority(CertCreateCertificateContext(
      X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()), size));
  const CERT_CONTEXT* raw = nullptr;
  DWORD length = sizeof(raw);
  if (!authority ||
      !WinHttpQueryOption(request, WINHTTP_OPTION_SERVER_CERT_CONTEXT, &raw, &length)) {
    return false;
  }
  const Certificate server(raw);
  if (!server || !CryptVerifyCertificateSignatureEx(
                     0, X509_ASN_ENCODING, CRYPT_VERIFY_CERT_SIGN_SUBJECT_CERT,
                     const_cast<CERT_CONTEXT*>(server.get()), CRYPT_VERIFY_CERT_SIGN_ISSUER_CERT,
                     const_cast<CERT_CONTEXT*>(authority.get()), 0, nullptr)) {
    return false;
  }
  char name[256] = {};
  CertGetNameStringA(server.get(), CERT_NAME_ATTR_TYPE, 0, const_cast<char*>(szOID_COMMON_NAME),
                     name, sizeof(name));
  return host == name;
}

struct HandleCloser {
  void operator()(void* handle) const {
    if (handle != nullptr) WinHttpCloseHandle(handle);
  }
};
using Handle = std::unique_ptr<void, HandleCloser>;

// Request text as UTF-16. WinHTTP sends request text as UTF-8, so text that
// is valid UTF-8 is decoded from it and travels as the same bytes; other
// text is widened one character per byte (its bytes above 0x7F then travel
// as their UTF-8 spelling).
std::wstring Widen(std::string_view bytes) {
  if (bytes.empty()) return std::wstring();
  if (bytes.size() < 0x7FFFFFFF) {
    const int count = static_cast<int>(bytes.size());
    const int characters =
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), count, nullptr, 0);
    if (characters > 0) {
      std::wstring wide(static_cast<std::size_t>(characters), L'\0');
      if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), count, wide.data(),
                              characters) == characters) {
        return wide;
      }
    }
  }
  std::wstring wide;
  wide.reserve(bytes.size());
  for (const char c : bytes) wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
  return wide;
}

// Response header text: WinHTTP hands each received byte back as one
// character, so narrowing is byte by byte; characters above 0xFF (which a
// server's bytes never become) turn into '?'.
std::string Narrow(std::wstring_view wide) {
  std::string bytes;
  bytes.reserve(wide.size());
  for (const wchar_t c : wide) bytes.push_back(c <= 0xFF ? static_cast<char>(c) : '?');
  return bytes;
}

// CR, LF and NUL end or split a request line or a header line: text holding
// one of them is never handed to WinHTTP.
bool HasLineBreakOrNul(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

// Path and query as the request line carries them: no blanks or controls.
bool IsRequestLineSafe(std::string_view path) {
  if (path.empty() || path.front() != '/') return false;
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7F) return false;
  }
  return true;
}

bool IsHostSafe(std::string_view host) {
  if (host.empty()) return false;
  for (const char c : host) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7F || c == '/' || c == '?' || c == '#' || c == '@') return false;
  }
  return true;
}

// Per request: whether WinHTTP was sent from https to plain http.
struct RedirectWatch {
  bool secure = false;
  std::atomic<bool> downgraded{false};
};

// Status callback for redirects: WinHTTP reports the new address before it
// connects there. A secure request that is sent elsewhere than https is
// marked; the call then fails (the redirect policy already forbids the
// step, this is the check that holds whatever the platform's policy does).
void CALLBACK OnStatus(HINTERNET, DWORD_PTR context, DWORD status, LPVOID information,
                       DWORD length) {
  if (status != WINHTTP_CALLBACK_STATUS_REDIRECT || context == 0) return;
  auto* watch = reinterpret_cast<RedirectWatch*>(context);
  if (!watch->secure) return;
  const auto* url = static_cast<const wchar_t*>(information);
  std::size_t characters = 0;
  if (url != nullptr) {
    const std::size_t limit = length / sizeof(wchar_t);
    while ((limit == 0 || characters < limit) && url[characters] != L'\0') ++characters;
  }
  const std::wstring_view target(url != nullptr ? url : L"", characters);
  if (target.size() < 8 ||
      (target.substr(0, 8) != L"https://" && target.substr(0, 8) != L"HTTPS://"))
    watch->downgraded = true;
}

bool SetDword(HINTERNET handle, DWORD option, DWORD value) {
  return WinHttpSetOption(handle, option, &value, sizeof(value)) != FALSE;
}

// The final response's header block split into lines ("HTTP/1.1 200 OK",
// then "Name: value" lines), from its CRLF text.
std::vector<std::string> HeaderLines(HINTERNET request) {
  std::vector<std::string> lines;
  DWORD size = 0;
  WinHttpQueryHeaders(request, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX,
                      WINHTTP_NO_OUTPUT_BUFFER, &size, WINHTTP_NO_HEADER_INDEX);
  if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || size == 0) return lines;
  std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
  if (!WinHttpQueryHeaders(request, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX,
                           text.data(), &size, WINHTTP_NO_HEADER_INDEX)) {
    return lines;
  }
  text.resize(size / sizeof(wchar_t));
  std::wstring_view rest(text);
  while (!rest.empty()) {
    std::size_t end = rest.find(L'\n');
    std::wstring_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::wstring_view::npos ? rest.size() : end + 1);
    while (!line.empty() && (line.back() == L'\r' || line.back() == L'\0')) line.remove_suffix(1);
    if (!line.empty()) lines.push_back(Narrow(line));
  }
  return lines;
}

}  // namespace

HttpResponse HttpGet(const HttpRequest& request) {
  HttpResponse response;
  response.body = std::make_unique<CZelvarBuffer>();

  std::string host = request.host;
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);  // WinHTTP takes an IPv6 literal bare
  }
  if (!IsHostSafe(host) || !IsRequestLineSafe(request.path)) return response;

  Handle session(WinHttpOpen(nullptr, WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME,
                             WINHTTP_NO_PROXY_BYPASS, 0));
  if (!session) return response;
  // WinHTTP's 0 is "no limit", as the seam's <= 0 is.
  const int limit = request.timeoutSeconds > 0 && request.timeoutSeconds < 2'000'000
                        ? static_cast<int>(request.timeoutSeconds) * 1000
                        : (request.timeoutSeconds > 0 ? 2'000'000'000 : 0);
  if (!WinHttpSetTimeouts(session.get(), limit, limit, limit, limit)) return response;

  const std::wstring wideHost = Widen(host);
  Handle connection(
      WinHttpConnect(session.get(), wideHost.c_str(),
                     request.secure ? INTERNET_DEFAULT_HTTPS_PORT : INTERNET_DEFAULT_HTTP_PORT, 0));
  if (!connection) return response;

  const std::wstring widePath = Widen(request.path);
  Handle handle(WinHttpOpenRequest(connection.get(), L"GET", widePath.c_str(), nullptr,
                                   WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                   request.secure ? WINHTTP_FLAG_SECURE : 0));
  if (!handle) return response;
  HINTERNET const h = handle.get();

  // Features off, in this order: authentication, cookies, keep-alive.
  if (!SetDword(h, WINHTTP_OPTION_DISABLE_FEATURE, WINHTTP_DISABLE_AUTHENTICATION) ||
      !SetDword(h, WINHTTP_OPTION_DISABLE_FEATURE, WINHTTP_DISABLE_COOKIES) ||
      !SetDword(h, WINHTTP_OPTION_DISABLE_FEATURE, WINHTTP_DISABLE_KEEP_ALIVE)) {
    return response;
  }
  // Not every WinHTTP knows these two; the status callback below still
  // stops a step from https to http.
  SetDword(h, WINHTTP_OPTION_REDIRECT_POLICY,
           WINHTTP_OPTION_REDIRECT_POLICY_DISALLOW_HTTPS_TO_HTTP);
  SetDword(h, WINHTTP_OPTION_MAX_HTTP_AUTOMATIC_REDIRECTS, kMaxRedirects);
  const std::string testAuthority = request.secure ? TestTrustFile() : std::string();
  if (!testAuthority.empty()) {
    // Tests only: the loopback server's certificate comes from an authority
    // made for the run, which the system does not know, and names an
    // address; it is checked against that authority below instead.
    SetDword(h, WINHTTP_OPTION_SECURITY_FLAGS,
             SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_CN_INVALID);
  }

  RedirectWatch watch;
  watch.secure = request.secure;
  if (WinHttpSetStatusCallback(h, OnStatus, WINHTTP_CALLBACK_FLAG_REDIRECT, 0) ==
      WINHTTP_INVALID_STATUS_CALLBACK) {
    return response;
  }

  // Host first, as the Linux client sends it (WinHTTP would add its own last).
  const std::wstring hostLine = L"Host: " + Widen(request.host);
  WinHttpAddRequestHeaders(h, hostLine.c_str(), static_cast<DWORD>(hostLine.size()),
                           WINHTTP_ADDREQ_FLAG_ADD | WINHTTP_ADDREQ_FLAG_REPLACE);
  for (const std::string& line : request.headers) {
    if (HasLineBreakOrNul(line) || line.find(':') == std::string::npos) continue;
    const std::wstring wide = Widen(line);
    WinHttpAddRequestHeaders(h, wide.c_str(), static_cast<DWORD>(wide.size()),
                             WINHTTP_ADDREQ_FLAG_ADD);
  }

  if (!WinHttpSendRequest(h, WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA, 0, 0,
                          reinterpret_cast<DWORD_PTR>(&watch)) ||
      watch.downgraded || !WinHttpReceiveResponse(h, nullptr) || watch.downgraded) {
    return response;
  }
  if (!testAuthority.empty() && !IssuedByTestAuthority(h, testAuthority, host)) return response;

  std::vector<std::string> lines = HeaderLines(h);
  DWORD status = 0;
  DWORD size = sizeof(status);
  if (lines.empty() ||
      !WinHttpQueryHeaders(h, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                           WINHTTP_HEADER_NAME_BY_INDEX, &status, &size, WINHTTP_NO_HEADER_INDEX)) {
    return response;
  }
  response.headerLines = std::move(lines);
  response.status = static_cast<int>(status);
  response.outcome = HttpResponse::Outcome::kBodyFailed;

  // A declared length over the bound fails at once; a body that ends short
  // of its declared length (the server closed early) fails after reading.
  std::optional<std::uint64_t> declared;
  if (status != 204 && status != 304 && status >= 200) {
    wchar_t text[32] = {};
    DWORD textSize = sizeof(text);
    if (WinHttpQueryHeaders(h, WINHTTP_QUERY_CONTENT_LENGTH, WINHTTP_HEADER_NAME_BY_INDEX, text,
                            &textSize, WINHTTP_NO_HEADER_INDEX)) {
      std::uint64_t value = 0;
      bool digits = text[0] != L'\0';
      for (const wchar_t* c = text; *c != L'\0' && digits; ++c) {
        digits = *c >= L'0' && *c <= L'9' && value < (std::uint64_t{1} << 60);
        value = value * 10 + static_cast<std::uint64_t>(*c - L'0');
      }
      if (digits) declared = value;
    }
  }
  if (declared && *declared > request.maxBodyBytes) return response;

  CZelvarBuffer& body = *response.body;
  std::string piece;
  for (;;) {
    DWORD available = 0;
    if (BackgroundWorkStopping() || !WinHttpQueryDataAvailable(h, &available)) {
      response.body = std::make_unique<CZelvarBuffer>();
      return response;
    }
    if (available == 0) break;
    const auto held = static_cast<std::size_t>(body.GetValueLength());
    if (available > request.maxBodyBytes - held) {
      response.body = std::make_unique<CZelvarBuffer>();
      return response;
    }
    piece.resize(available);
    DWORD read = 0;
    if (!WinHttpReadData(h, piece.data(), available, &read) || read > available) {
      response.body = std::make_unique<CZelvarBuffer>();
      return response;
    }
    // Bytes past the declared length are not part of the body (the Linux
    // client stops there too); Wine's WinHTTP hands them on until close.
    std::size_t take = read;
    if (declared) take = static_cast<std::size_t>(std::min<std::uint64_t>(take, *declared - held));
    body.Append(reinterpret_cast<const unsigned char*>(piece.data()),
                static_cast<std::int32_t>(take));
    if (declared && static_cast<std::uint64_t>(body.GetValueLength()) == *declared) break;
  }
  if (declared && static_cast<std::uint64_t>(body.GetValueLength()) < *declared) {
    response.body = std::make_unique<CZelvarBuffer>();
    return response;
  }
  response.outcome = HttpResponse::Outcome::kComplete;
  return response;
}

void SetTrustedCertificatesForTesting(const std::string& caFile) {
  std::lock_guard<std::mutex> lock(TrustMutex());
  TrustedCertificates() = caFile;
}

}  // namespace zelvarpack::net
