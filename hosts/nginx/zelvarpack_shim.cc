// The C calls of zelvarpack_shim.h over the library's public classes. No
// exception leaves this file: a failure is a 0 return, and the module then
// sends the original page (or a 404 for a handler).
#include "zelvarpack_shim.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "zelvarpack/zelvar_buffer.h"
#include "zelvarpack/zelvar_css_server.h"
#include "zelvarpack/zelvar_html_server.h"
#include "zelvarpack/zelvar_image_server.h"
#include "zelvarpack/zelvar_js_server.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

// The id the optimiser gives the placeholder picture of sprite images.
constexpr char kPlaceholderId[] = "{2F50498C-8605-468F-991E-AEABAA95E643}";
// A 1x1 GIF whose one pixel is transparent.
constexpr unsigned char kTransparentGif[] = {
    'G',  'I',  'F',  '8',  '9',  'a',  0x01, 0x00, 0x01, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00,
    0x00, 0xFF, 0xFF, 0xFF, 0x21, 0xF9, 0x04, 0x01, 0x00, 0x00, 0x00, 0x00, 0x2C, 0x00, 0x00,
    0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00, 0x02, 0x02, 0x44, 0x01, 0x00, 0x3B};

// The switches the optimiser reads from marker comments; placed before the
// page they hold for the whole page and are not written out.
constexpr char kScriptsOff[] = "<!--zp_js_off-->";
constexpr char kImagesOff[] = "<!--zp_image_off-->";

// Replaces every `from` in `page` with `to`.
std::string ReplaceAll(std::string page, const std::string& from, const std::string& to) {
  std::size_t at = 0;
  while ((at = page.find(from, at)) != std::string::npos) {
    page.replace(at, from.size(), to);
    at += to.size();
  }
  return page;
}

// Pages are handed over as signed 32-bit lengths.
constexpr std::size_t kMaxLength = 0x7FFF0000;

unsigned char* Bytes(const char* text) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(text));
}

std::int32_t Length(const char* text) {
  return text == nullptr ? 0 : static_cast<std::int32_t>(std::strlen(text));
}

// A malloc'd copy of a buffer's bytes, or null when there are none.
unsigned char* CopyOut(CZelvarBuffer* buffer, std::size_t& length) {
  length = 0;
  if (buffer == nullptr || buffer->GetValueLength() <= 0) return nullptr;
  length = static_cast<std::size_t>(buffer->GetValueLength());
  auto* copy = static_cast<unsigned char*>(std::malloc(length));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, buffer->GetValue(), length);
  return copy;
}

const char* ImageTypeOf(const unsigned char* data, std::size_t length) {
  if (length >= 4 && std::memcmp(data, "GIF8", 4) == 0) return "image/gif";
  if (length >= 8 && std::memcmp(data, "\x89PNG\r\n\x1a\n", 8) == 0) return "image/png";
  if (length >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) return "image/jpeg";
  return "application/octet-stream";
}

int OptimisePage(zp_page_job_t* job) {
  if (job->in == nullptr || job->in_len == 0 || job->in_len > kMaxLength) return 0;
  std::string cache = job->cache != nullptr ? job->cache : "";
  std::string handlerPath = job->handler_path != nullptr ? job->handler_path : "";
  const char* server = job->server_address;
  const char* client = job->client_address != nullptr ? job->client_address : "";
  const char* url = job->page_url != nullptr ? job->page_url : "";
  // The library exports no destructor for the optimiser: it is deleted
  // through its virtual destructor, so it lives on the heap.
  std::unique_ptr<CZelvarHtmlServer> owner(new CZelvarHtmlServer(
      cache.data(), 1, job->fetch_foreign != 0, job->keep_comments != 0,
      /*useOwnHost=*/server == nullptr, job->timeout_seconds, handlerPath.data(), nullptr,
      Bytes(client), Length(client), Bytes(server), Length(server), Bytes(url), Length(url),
      job->accept_charset, job->accept_language, nullptr, nullptr, job->user_agent));
  CZelvarHtmlServer& optimiser = *owner;
  if (job->scripts_off) optimiser.AddWork(Bytes(kScriptsOff), Length(kScriptsOff));
  if (job->images_off) optimiser.AddWork(Bytes(kImagesOff), Length(kImagesOff));
  if (job->scripts_off || job->images_off) {
    // The page's own switches must not turn back on what its policy forbids.
    std::string page(reinterpret_cast<const char*>(job->in), job->in_len);
    if (job->scripts_off) page = ReplaceAll(std::move(page), "zp_js_on", "zp_js_off");
    if (job->images_off) page = ReplaceAll(std::move(page), "zp_image_on", "zp_image_off");
    if (page.size() > kMaxLength) return 0;
    optimiser.AddWork(Bytes(page.c_str()), static_cast<std::int32_t>(page.size()));
  } else {
    optimiser.AddWork(const_cast<unsigned char*>(job->in), static_cast<std::int32_t>(job->in_len));
  }
  optimiser.DoWork();

  bool gzip = false;
  CZelvarBuffer* plain = optimiser.GetRawZelvarBuffer(gzip);
  const std::int32_t plainBytes = plain->GetValueLength();
  if (plainBytes <= 0) return 0;
  job->bytes_before = optimiser.GetBytesBefore(false) + static_cast<std::int32_t>(job->in_len);
  job->requests_before = optimiser.GetRequestsBefore();
  job->requests_after = optimiser.GetRequestsAfter();
  job->send_stats = optimiser.GetSendStats() ? 1 : 0;
  if (job->accepts_gzip) {
    gzip = true;
    CZelvarBuffer* sent = optimiser.GetRawZelvarBuffer(gzip);
    job->out = CopyOut(sent, job->out_len);
    job->out_gzip = gzip ? 1 : 0;
    job->bytes_after = optimiser.GetBytesAfter(static_cast<std::int32_t>(job->out_len), gzip);
  } else {
    job->out = CopyOut(plain, job->out_len);
    job->out_gzip = 0;
    job->bytes_after = optimiser.GetBytesAfter(plainBytes, false);
  }
  return job->out != nullptr ? 1 : 0;
}

int HandlerAnswer(const char* cache, int kind, const char* id, int acceptsGzip,
                  zp_handler_answer_t* answer) {
  std::string folder = cache != nullptr ? cache : "";
  if (kind == ZP_HANDLER_CSS || kind == ZP_HANDLER_JS) {
    bool gzip = acceptsGzip != 0;
    std::unique_ptr<CZelvarBuffer> bytes;
    bool wasGzip = false;
    if (kind == ZP_HANDLER_CSS) {
      // Deleted through its virtual destructor, as the library exports none.
      std::unique_ptr<CZelvarCssServer> server(new CZelvarCssServer(folder.data()));
      bytes.reset(server->GetMinifiedId(id, gzip));
      answer->type = "text/css";
    } else {
      CZelvarJSServer server(folder.data());
      bytes.reset(server.GetRawId(id, gzip));
      answer->type = "application/javascript";
    }
    if (!bytes) return 0;
    // Which form came back is told by the bytes themselves: a stylesheet or
    // a script never starts with gzip's magic number, and the flag the
    // call writes back is not reliable when a gzip file is missing.
    wasGzip = bytes->GetValueLength() >= 2 && bytes->GetValue()[0] == 0x1F &&
              bytes->GetValue()[1] == 0x8B;
    answer->data = CopyOut(bytes.get(), answer->len);
    if (answer->data == nullptr) return 0;
    answer->gzip = wasGzip ? 1 : 0;
    answer->vary = 1;
    return 1;
  }
  if (kind != ZP_HANDLER_IMAGE) return 0;
  if (std::strcmp(id, kPlaceholderId) == 0) {
    answer->fixed = kTransparentGif;
    answer->len = sizeof kTransparentGif;
    answer->type = "image/gif";
    return 1;
  }
  CZelvarImageServer server(folder.data());
  std::unique_ptr<CZelvarImages> images(server.GetGifId(id));
  if (!images) images.reset(server.GetJpgId(id));
  if (!images) images.reset(server.GetPng24Id(id));
  if (!images) images.reset(server.GetPng32Id(id));
  if (!images) return 0;
  bool wasGzip = false;
  answer->data = CopyOut(images->GetRawImageZelvarBuffer(wasGzip), answer->len);
  if (answer->data == nullptr) return 0;
  answer->type = ImageTypeOf(answer->data, answer->len);
  return 1;
}

bool IsHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

}  // namespace

extern "C" int zp_optimise_page(zp_page_job_t* job) {
  try {
    const int ok = OptimisePage(job);
    if (!ok && job->out != nullptr) {
      std::free(job->out);
      job->out = nullptr;
    }
    return ok;
  } catch (...) {
    std::free(job->out);
    job->out = nullptr;
    return 0;
  }
}

extern "C" int zp_handler_answer(const char* cache, int kind, const char* id, int accepts_gzip,
                                 zp_handler_answer_t* answer) {
  *answer = zp_handler_answer_t{};
  try {
    if (id == nullptr || !zp_is_identifier(id, std::strlen(id))) return 0;
    return HandlerAnswer(cache, kind, id, accepts_gzip, answer);
  } catch (...) {
    std::free(answer->data);
    *answer = zp_handler_answer_t{};
    return 0;
  }
}

extern "C" int zp_is_identifier(const char* id, size_t len) {
  if (len != 38 || id[0] != '{' || id[37] != '}') return 0;
  for (std::size_t i = 1; i < 37; ++i) {
    const bool dash = i == 9 || i == 14 || i == 19 || i == 24;
    if (dash ? id[i] != '-' : !IsHex(id[i])) return 0;
  }
  return 1;
}

extern "C" int zp_stop_background_work(int32_t timeout_milliseconds) {
  try {
    return CZelvarUtils::StopBackgroundWork(timeout_milliseconds) ? 1 : 0;
  } catch (...) {
    return 0;
  }
}

extern "C" void zp_free(void* bytes) { std::free(bytes); }
