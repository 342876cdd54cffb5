// zelvarpack serve: a small HTTP host for trying optimised pages in a
// browser. It serves the static files under --root and answers the three
// handler names at any path ("/CS.zp?ID", "/static/JS.zp?ID", ...) from the
// --cache folder, as a host in front of a web site would: stylesheets
// through CZelvarCssServer::GetMinifiedId, scripts through
// CZelvarJSServer::GetRawId, sprite sheets through the image server's four
// getters, and the placeholder picture of sprite images as a 1x1 transparent
// GIF.
//
// One thread per connection (at most kMaxConnections at once, the rest are
// closed at once), one request per connection ("Connection: close"), GET and
// HEAD only. A request that cannot be read within kIdleSeconds, or whose head
// exceeds kMaxHead bytes, is answered 400; so is any target that is not a
// plain absolute path. Nothing outside --root is ever served: ".." segments
// are refused (symbolic links inside the root are followed on purpose, so a
// test can place packaged libraries beside a page).
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "core/portable_files.h"
#include "core/socket_calls.h"
#include "tools/cli.h"
#include "zelvarpack/zelvar_css_server.h"
#include "zelvarpack/zelvar_image_server.h"
#include "zelvarpack/zelvar_js_server.h"

using zelvarpack::cli::Arguments;
using zelvarpack::cli::Fail;

namespace {

constexpr std::size_t kMaxHead = 16384;
constexpr int kMaxConnections = 128;
constexpr int kIdleSeconds = 10;
constexpr char kPlaceholderId[] = "{2F50498C-8605-468F-991E-AEABAA95E643}";
// A 1x1 GIF whose one pixel is transparent: the picture a sprite image shows
// in its src while its sheet paints the background.
constexpr unsigned char kTransparentGif[] = {
    'G',  'I',  'F',  '8',  '9',  'a',  0x01, 0x00, 0x01, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00,
    0x00, 0xFF, 0xFF, 0xFF, 0x21, 0xF9, 0x04, 0x01, 0x00, 0x00, 0x00, 0x00, 0x2C, 0x00, 0x00,
    0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00, 0x02, 0x02, 0x44, 0x01, 0x00, 0x3B};
// Handler answers are named by their content, so they never change.
constexpr char kHandlerCacheControl[] = "public, max-age=31536000, immutable";

struct Settings {
  std::string root;
  std::string cache;
};

struct Response {
  int status = 200;
  std::string type;
  std::string body;
  std::string cacheControl = "no-cache";
  bool gzip = false;
  bool varyOnEncoding = false;
};

std::atomic<int> openConnections{0};

char AsciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool EqualsIgnoringCase(const std::string& a, const char* b) {
  const std::size_t n = std::strlen(b);
  if (a.size() != n) return false;
  for (std::size_t i = 0; i < n; ++i)
    if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
  return true;
}

std::string Trim(const std::string& text) {
  std::size_t begin = 0, end = text.size();
  while (begin < end && (text[begin] == ' ' || text[begin] == '\t')) ++begin;
  while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t')) --end;
  return text.substr(begin, end - begin);
}

// The value of the first header called `name` in a request head, or "".
std::string HeaderValue(const std::string& head, const char* name) {
  std::size_t line = head.find('\n');
  while (line != std::string::npos && line + 1 < head.size()) {
    const std::size_t start = line + 1;
    std::size_t end = head.find('\n', start);
    if (end == std::string::npos) end = head.size();
    const std::string text = head.substr(start, end - start);
    const std::size_t colon = text.find(':');
    if (colon != std::string::npos && EqualsIgnoringCase(Trim(text.substr(0, colon)), name)) {
      std::string value = Trim(text.substr(colon + 1));
      if (!value.empty() && value.back() == '\r') value.pop_back();
      return Trim(value);
    }
    line = end;
  }
  return "";
}

// Whether an Accept-Encoding value takes gzip: a "gzip" (or "*") coding
// whose q parameter is not zero.
bool AcceptsGzip(const std::string& acceptEncoding) {
  std::size_t start = 0;
  while (start <= acceptEncoding.size()) {
    std::size_t end = acceptEncoding.find(',', start);
    if (end == std::string::npos) end = acceptEncoding.size();
    const std::string item = acceptEncoding.substr(start, end - start);
    const std::size_t semicolon = item.find(';');
    const std::string coding = Trim(item.substr(0, semicolon));
    if (EqualsIgnoringCase(coding, "gzip") || coding == "*") {
      if (semicolon == std::string::npos) return true;
      std::string parameter = Trim(item.substr(semicolon + 1));
      if (parameter.size() < 2 || AsciiLower(parameter[0]) != 'q' || parameter[1] != '=')
        return true;
      return std::strtod(parameter.c_str() + 2, nullptr) > 0;
    }
    start = end + 1;
  }
  return false;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = AsciiLower(c);
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Decodes %XX escapes; false for a broken escape or a NUL byte.
bool PercentDecode(const std::string& text, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size()) return false;
      const int high = HexValue(text[i + 1]), low = HexValue(text[i + 2]);
      if (high < 0 || low < 0) return false;
      c = static_cast<char>(high * 16 + low);
      i += 2;
    }
    if (c == '\0') return false;
    out += c;
  }
  return true;
}

std::string ContentTypeOfPath(const std::string& path) {
  static const struct {
    const char* extension;
    const char* type;
  } kTypes[] = {
      {".html", "text/html"},
      {".htm", "text/html"},
      {".css", "text/css"},
      {".js", "text/javascript"},
      {".json", "application/json"},
      {".map", "application/json"},
      {".gif", "image/gif"},
      {".png", "image/png"},
      {".jpg", "image/jpeg"},
      {".jpeg", "image/jpeg"},
      {".svg", "image/svg+xml"},
      {".ico", "image/x-icon"},
      {".woff", "font/woff"},
      {".woff2", "font/woff2"},
      {".ttf", "font/ttf"},
      {".otf", "font/otf"},
      {".eot", "application/vnd.ms-fontobject"},
      {".txt", "text/plain"},
  };
  const std::size_t slash = path.rfind('/');
  const std::size_t dot = path.rfind('.');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) {
    std::string extension;
    for (std::size_t i = dot; i < path.size(); ++i) extension += AsciiLower(path[i]);
    for (const auto& entry : kTypes)
      if (extension == entry.extension) return entry.type;
  }
  return "application/octet-stream";
}

// The type of a sprite sheet by its first bytes: the getters say which set
// a sheet came from, not how it is encoded.
std::string ImageTypeOf(const CZelvarBuffer& bytes) {
  const unsigned char* data = const_cast<CZelvarBuffer&>(bytes).GetValue();
  const std::int32_t length = const_cast<CZelvarBuffer&>(bytes).GetValueLength();
  if (length >= 4 && std::memcmp(data, "GIF8", 4) == 0) return "image/gif";
  if (length >= 8 && std::memcmp(data, "\x89PNG\r\n\x1a\n", 8) == 0) return "image/png";
  if (length >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) return "image/jpeg";
  return "application/octet-stream";
}

Response Error(int status) {
  Response response;
  response.status = status;
  response.type = "text/plain";
  response.body = std::to_string(status) + "\n";
  return response;
}

std::string Take(CZelvarBuffer* buffer) {
  std::unique_ptr<CZelvarBuffer> owned(buffer);
  return std::string(reinterpret_cast<const char*>(owned->GetValue()),
                     static_cast<std::size_t>(owned->GetValueLength()));
}

Response Handler(const Settings& settings, const std::string& name, const std::string& id,
                 bool acceptsGzip) {
  Response response;
  response.cacheControl = kHandlerCacheControl;
  std::string cache = settings.cache;
  if (name == "CS.zp" || name == "JS.zp") {
    bool gzip = acceptsGzip;
    CZelvarBuffer* bytes = nullptr;
    bool wasGzip = false;
    if (name == "CS.zp") {
      CZelvarCssServer server(cache.data());
      bytes = server.GetMinifiedId(id, gzip);
      wasGzip = server.GetWasGzip();
      response.type = "text/css";
    } else {
      CZelvarJSServer server(cache.data());
      bytes = server.GetRawId(id, gzip);
      wasGzip = server.GetWasGzip();
      response.type = "text/javascript";
    }
    if (bytes == nullptr) return Error(404);
    response.body = Take(bytes);
    response.gzip = wasGzip;
    response.varyOnEncoding = true;
    return response;
  }
  // IS.zp
  if (id == kPlaceholderId) {
    response.type = "image/gif";
    response.body.assign(reinterpret_cast<const char*>(kTransparentGif), sizeof kTransparentGif);
    return response;
  }
  CZelvarImageServer server(cache.data());
  std::unique_ptr<CZelvarImages> images(server.GetGifId(id));
  if (!images) images.reset(server.GetJpgId(id));
  if (!images) images.reset(server.GetPng24Id(id));
  if (!images) images.reset(server.GetPng32Id(id));
  if (!images) return Error(404);
  bool wasGzip = false;
  CZelvarBuffer* sheet = images->GetRawImageZelvarBuffer(wasGzip);
  response.type = ImageTypeOf(*sheet);
  response.body.assign(reinterpret_cast<const char*>(sheet->GetValue()),
                       static_cast<std::size_t>(sheet->GetValueLength()));
  return response;
}

Response StaticFile(const Settings& settings, const std::string& path) {
  // Every segment must be a plain name: no "..", no ".", nothing hidden.
  std::size_t start = 1;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string segment = path.substr(start, end - start);
    if (segment == ".." || segment == ".") return Error(400);
    start = end + 1;
  }
  std::string file = settings.root + path;
  struct stat info;
  if (::stat(file.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    if (file.back() != '/') file += '/';
    file += "index.html";
  }
  const int fd = zelvarpack::OpenDescriptor(file.c_str(), O_RDONLY);
  if (fd < 0) return Error(404);
  Response response;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return Error(404);
  }
  char chunk[65536];
  for (;;) {
    const ssize_t got = ::read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    response.body.append(chunk, static_cast<std::size_t>(got));
  }
  ::close(fd);
  response.type = ContentTypeOfPath(file);
  return response;
}

// Answers one request head (request line and headers).
Response Answer(const Settings& settings, const std::string& head, bool& isHead) {
  const std::size_t lineEnd = head.find('\n');
  std::string line = head.substr(0, lineEnd);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  const std::size_t first = line.find(' ');
  const std::size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
  if (second == std::string::npos || line.find(' ', second + 1) != std::string::npos)
    return Error(400);
  const std::string method = line.substr(0, first);
  const std::string target = line.substr(first + 1, second - first - 1);
  const std::string version = line.substr(second + 1);
  if (version.compare(0, 7, "HTTP/1.") != 0 || version.size() != 8) return Error(400);
  if (target.empty() || target[0] != '/') return Error(400);
  isHead = method == "HEAD";
  if (method != "GET" && !isHead) return Error(405);

  const std::size_t question = target.find('?');
  std::string path, query;
  if (!PercentDecode(target.substr(0, question), path)) return Error(400);
  if (question != std::string::npos && !PercentDecode(target.substr(question + 1), query))
    return Error(400);
  const std::size_t hash = query.find('#');
  if (hash != std::string::npos) query.erase(hash);

  const std::string name = path.substr(path.rfind('/') + 1);
  if (name == "CS.zp" || name == "JS.zp" || name == "IS.zp") {
    if (query.empty()) return Error(400);
    return Handler(settings, name, query, AcceptsGzip(HeaderValue(head, "Accept-Encoding")));
  }
  return StaticFile(settings, path);
}

const char* StatusText(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 503:
      return "Service Unavailable";
    default:
      return "Error";
  }
}

bool SendAll(zelvarpack::SocketHandle fd, const char* bytes, std::size_t count) {
  while (count > 0) {
    const std::int64_t sent = zelvarpack::SendSome(fd, bytes, count);
    if (sent <= 0) return false;
    bytes += sent;
    count -= static_cast<std::size_t>(sent);
  }
  return true;
}

void Send(zelvarpack::SocketHandle fd, const Response& response, bool isHead) {
  std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " +
                     StatusText(response.status) + "\r\nContent-Type: " + response.type +
                     "\r\nContent-Length: " + std::to_string(response.body.size()) +
                     "\r\nCache-Control: " + response.cacheControl + "\r\n";
  if (response.gzip) head += "Content-Encoding: gzip\r\n";
  if (response.varyOnEncoding) head += "Vary: Accept-Encoding\r\n";
  if (response.status == 405) head += "Allow: GET, HEAD\r\n";
  head += "Connection: close\r\n\r\n";
  if (SendAll(fd, head.data(), head.size()) && !isHead)
    SendAll(fd, response.body.data(), response.body.size());
}

// Reads one request head; false when the client went away before sending
// anything. `head` holds what came when it is too long or incomplete.
bool ReadHead(zelvarpack::SocketHandle fd, std::string& head, bool& complete) {
  complete = false;
  char chunk[4096];
  while (head.size() <= kMaxHead) {
    const std::int64_t got = zelvarpack::ReceiveSome(fd, chunk, sizeof chunk);
    if (got <= 0) return !head.empty();
    head.append(chunk, static_cast<std::size_t>(got));
    const std::size_t end = head.find("\r\n\r\n");
    const std::size_t bareEnd = head.find("\n\n");
    if (end != std::string::npos || bareEnd != std::string::npos) {
      const std::size_t cut =
          end != std::string::npos && (bareEnd == std::string::npos || end < bareEnd) ? end + 2
                                                                                      : bareEnd + 1;
      head.resize(cut);
      complete = head.size() <= kMaxHead;
      return true;
    }
  }
  return true;
}

void ServeConnection(zelvarpack::SocketHandle fd, const Settings* settings) {
  zelvarpack::SetSocketTimeouts(fd, kIdleSeconds, kIdleSeconds);
  std::string head;
  bool complete = false;
  if (ReadHead(fd, head, complete)) {
    bool isHead = false;
    Response response;
    try {
      response = complete ? Answer(*settings, head, isHead) : Error(400);
    } catch (const std::exception&) {
      response = Error(503);
    }
    Send(fd, response, isHead);
  }
  // Closing with unread request bytes would reset the connection and could
  // destroy the answer in flight: say we are done, then read what is left
  // (a bounded amount, for a bounded time) until the client closes.
  zelvarpack::ShutdownSending(fd);
  zelvarpack::SetSocketTimeouts(fd, 1, kIdleSeconds);
  char chunk[4096];
  for (std::size_t drained = 0; drained < (1u << 20);) {
    const std::int64_t got = zelvarpack::ReceiveSome(fd, chunk, sizeof chunk);
    if (got <= 0) break;
    drained += static_cast<std::size_t>(got);
  }
  zelvarpack::CloseSocket(fd);
  openConnections.fetch_sub(1);
}

}  // namespace

int RunServe(Arguments& args) {
  std::string listen;
  auto settings = std::make_unique<Settings>();
  settings->cache = ".";
  while (!args.Done()) {
    const std::string arg = args.Take();
    if (arg == "--listen") {
      listen = args.TakeValue(arg);
    } else if (arg == "--root") {
      settings->root = args.TakeValue(arg);
    } else if (arg == "--cache") {
      settings->cache = args.TakeValue(arg);
    } else {
      Fail("unknown argument " + arg);
    }
  }
  if (listen.empty()) Fail("expected --listen ADDRESS:PORT");
  if (settings->root.empty()) Fail("expected --root DIR");
  while (settings->root.size() > 1 && settings->root.back() == '/') settings->root.pop_back();
  struct stat info;
  if (::stat(settings->root.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
    Fail("--root " + settings->root + " is not a folder");

  const std::size_t colon = listen.rfind(':');
  sockaddr_in address{};
  address.sin_family = AF_INET;
  char* end = nullptr;
  const long port =
      colon == std::string::npos ? -1 : std::strtol(listen.c_str() + colon + 1, &end, 10);
  if (colon == std::string::npos || colon + 1 == listen.size() || *end != '\0' || port < 0 ||
      port > 65535 || ::inet_pton(AF_INET, listen.substr(0, colon).c_str(), &address.sin_addr) != 1)
    Fail("--listen needs an IPv4 ADDRESS:PORT, not '" + listen + "'");
  address.sin_port = htons(static_cast<std::uint16_t>(port));

  const zelvarpack::SocketHandle server = zelvarpack::OpenStreamSocket();
  if (server != zelvarpack::kNoSocket) zelvarpack::AllowAddressReuse(server);
  if (server == zelvarpack::kNoSocket ||
      ::bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(server, 128) != 0) {
    throw std::runtime_error("cannot listen on " + listen + ": " + std::strerror(errno));
  }
  socklen_t length = sizeof address;
  ::getsockname(server, reinterpret_cast<sockaddr*>(&address), &length);
  char text[INET_ADDRSTRLEN] = "";
  ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  // The one line a caller waits for: where to send requests (the port is
  // the kernel's choice when 0 was asked for).
  std::printf("http://%s:%u/\n", text, static_cast<unsigned>(ntohs(address.sin_port)));
  std::fflush(stdout);
#if defined(SIGPIPE)
  std::signal(SIGPIPE, SIG_IGN);
#endif

  const Settings* shared = settings.release();  // lives as long as the process
  for (;;) {
    const zelvarpack::SocketHandle fd = zelvarpack::AcceptSocket(server);
    if (fd == zelvarpack::kNoSocket) {
      if (zelvarpack::AcceptFailureIsTransient()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        continue;
      }
      throw std::runtime_error(std::string("accept failed: ") + std::strerror(errno));
    }
    if (openConnections.fetch_add(1) >= kMaxConnections) {
      Send(fd, Error(503), false);
      zelvarpack::CloseSocket(fd);
      openConnections.fetch_sub(1);
      continue;
    }
    try {
      std::thread(ServeConnection, fd, shared).detach();
    } catch (const std::system_error&) {
      zelvarpack::CloseSocket(fd);
      openConnections.fetch_sub(1);
    }
  }
}
