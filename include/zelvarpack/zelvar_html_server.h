// CZelvarHtmlServer is the page optimiser: it takes one HTML page, fetches the
// stylesheets, scripts and images the page references, combines them through
// the stylesheet, script and image servers, and writes the page again so that
// it refers to the combined resources through short handler URLs
// ("CS.zp?ID", "JS.zp?ID", "IS.zp?ID") that the host answers later from the
// cache folder.
//
// Calling pattern: construct with the settings, AddWork the page bytes (any
// number of times), DoWork once, then read the results through the getters in
// any order. DoWork returns after at most the time-out for the downloads,
// plus the time the combining takes; a download still running then is left
// to finish on its own thread and never touches the server again.
//
// Thread safety: one object is used by one thread at a time. Any number of
// objects, in any number of threads or processes, may share a cache folder.
#ifndef ZELVARPACK_ZELVAR_HTML_SERVER_H_
#define ZELVARPACK_ZELVAR_HTML_SERVER_H_

#include <cstdint>
#include <memory>
#include <string>

#include "zelvarpack/export.h"
#include "zelvarpack/html_events.h"
#include "zelvarpack/zelvar_buffer.h"

class CZelvarHtmlServer;
namespace zelvarpack::page {
struct PageState;
// The inside of a server, for the engine's own tools and tests.
const PageState& StateOf(const CZelvarHtmlServer& server);
}  // namespace zelvarpack::page

class CZelvarHtmlServer : public CHtmlConstructorEvents {
 public:
  // Settings, in order:
  //   cacheDirectory     the cache root (copied; null counts as "").
  //   optimise           non-zero: stylesheets, images and scripts start on.
  //   fetchForeignHosts  resources on another host than the page's are
  //                      fetched only when true.
  //   keepComments       false: comments are left out of the new page.
  //   useOwnHost         false: relative resources are fetched from
  //                      serverAddress (when one is given) instead of the
  //                      page's host.
  //   timeoutSeconds     how long DoWork waits for the downloads, and each
  //                      download's own time-out (<= 0: no waiting).
  //   handlerPath        prefix of the handler URLs ("" counts as absent).
  //   callerContext      kept for the caller; not used.
  //   clientAddress      sent as X-Forwarded-For ("[...]" added around an
  //                      address holding ':').
  //   serverAddress      host (and port) that relative resources are fetched
  //                      from when useOwnHost is false.
  //   pageUrl            the page's own address: the base of every relative
  //                      address, and the Referer of the downloads.
  //   forwardA, forwardB the client's Accept-Charset and Accept-Language.
  //   forwardC, forwardD passed to the download, which does not read them.
  //   userAgent          the client's User-Agent: decides whether images may
  //                      become sprites, and is sent with the downloads.
  // The five const char* values are kept as pointers: the caller keeps them
  // valid until the object is destroyed. Everything else is copied.
  ZP_EXPORT CZelvarHtmlServer(char* cacheDirectory, std::int32_t optimise, bool fetchForeignHosts,
                              bool keepComments, bool useOwnHost, std::int32_t timeoutSeconds,
                              char* handlerPath, void* callerContext, unsigned char* clientAddress,
                              std::int32_t clientAddressLength, unsigned char* serverAddress,
                              std::int32_t serverAddressLength, unsigned char* pageUrl,
                              std::int32_t pageUrlLength, const char* forwardA,
                              const char* forwardB, const char* forwardC, const char* forwardD,
                              const char* userAgent);
  // Never waits longer than the time-out for downloads still running; they
  // end on their own threads.
  ~CZelvarHtmlServer() override;
  CZelvarHtmlServer(const CZelvarHtmlServer&) = delete;
  CZelvarHtmlServer& operator=(const CZelvarHtmlServer&) = delete;

  // Appends page bytes. A null pointer or a negative length adds nothing.
  ZP_EXPORT void AddWork(unsigned char* data, std::int32_t length);

  // Runs the whole optimisation once. A page without both <head> and
  // </head> comes out unchanged.
  ZP_EXPORT void DoWork();

  // The new page (gzip false), or on the first call with gzip true its gzip
  // form, kept for later calls. When gzip does not make it smaller, `gzip`
  // is cleared and the plain page is returned. Owned by the server.
  ZP_EXPORT CZelvarBuffer* GetRawZelvarBuffer(bool& gzip);
  // True once GetRawZelvarBuffer has returned the gzip form.
  ZP_EXPORT bool GetRawZelvarBufferWasGzip() const;

  // The content identifier of the new page.
  ZP_EXPORT std::string GetId();

  // Bytes of the page's resources as fetched: gzip true gives the sizes as
  // they travelled, false the decoded sizes.
  ZP_EXPORT std::int32_t GetBytesBefore(bool gzip) const;
  // `pageBytes` plus the bytes of the combined results and of the resources
  // the new page still loads separately.
  ZP_EXPORT std::int32_t GetBytesAfter(std::int32_t pageBytes, bool gzip);
  // Requests the page cost before and after (the page itself included).
  ZP_EXPORT std::int32_t GetRequestsBefore() const;
  ZP_EXPORT std::int32_t GetRequestsAfter() const;
  // True when the page holds the "<!--zp_send_stats-->" marker.
  ZP_EXPORT bool GetSendStats() const;

  // The page's events while DoWork tokenizes it.
  void OnTag(HtmlTagToken* tag) override;
  void OnDoctype(HtmlDoctypeToken* doctype) override;
  void OnText(HtmlTextToken* text) override;
  void OnTextRun(HtmlTextToken* character, const unsigned char* bytes, std::size_t count) override;

 private:
  friend const zelvarpack::page::PageState& zelvarpack::page::StateOf(
      const CZelvarHtmlServer& server);

  std::unique_ptr<zelvarpack::page::PageState> state_;
};

#endif  // ZELVARPACK_ZELVAR_HTML_SERVER_H_
