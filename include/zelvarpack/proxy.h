// CProxy prepares a page to be served from another place than its own site:
// it copies the page and makes the address of every stylesheet, image and
// script absolute against the page's own address, so that the copy still
// loads them from their site. The copy is written as "index.html" in a
// folder and starts with the markers "<!--zp_no_cache-->",
// "<!--zp_send_stats-->" and "<!--zp_server_url URL-->" for a later run of
// the page optimiser over it.
//
//   void* h = CProxy::Create(dir, dirLength, pageUrl, pageUrlLength,
//                            serverUrl, serverUrlLength);
//   CProxy::AddWork(h, bytes, count);   // any number of times
//   CProxy::DoWork(h);                  // once: writes dir/index.html
//   CProxy::Destroy(h);
//
// Nothing is downloaded. A handle is used by one thread at a time.
#ifndef ZELVARPACK_PROXY_H_
#define ZELVARPACK_PROXY_H_

#include <cstdint>
#include <memory>

#include "zelvarpack/export.h"
#include "zelvarpack/html_events.h"

class CProxy : public CHtmlConstructorEvents {
 public:
  // Copies the folder, the page's address and the server URL (the first
  // `length` bytes of each; null or a negative length count as empty).
  ZP_EXPORT static void* Create(unsigned char* directory, std::int32_t directoryLength,
                                unsigned char* pageUrl, std::int32_t pageUrlLength,
                                unsigned char* serverUrl, std::int32_t serverUrlLength);
  // Appends page bytes; null or a negative count adds nothing.
  ZP_EXPORT static void AddWork(void* handle, unsigned char* data, std::int32_t length);
  // Copies the page with its resource addresses made absolute and writes
  // folder/index.html. A folder that cannot be written to gets nothing.
  ZP_EXPORT static void DoWork(void* handle);
  // Frees the handle; null is ignored.
  ZP_EXPORT static void Destroy(void* handle);

  ~CProxy() override;
  CProxy(const CProxy&) = delete;
  CProxy& operator=(const CProxy&) = delete;

  // The page's events while DoWork tokenizes it.
  void OnTag(HtmlTagToken* tag) override;
  void OnDoctype(HtmlDoctypeToken* doctype) override;
  void OnText(HtmlTextToken* text) override;

 private:
  struct State;
  CProxy();
  std::unique_ptr<State> state_;
};

#endif  // ZELVARPACK_PROXY_H_
