// CSavingsCalculator saves a page for a later look at what optimising it
// would save: it downloads the stylesheets, images and scripts that the page
// optimiser would take, keeps each one as a file in a folder, writes a copy
// of the page that refers to those files as "index.html" in the same folder,
// and totals the sizes the downloads report. The copy starts with the
// markers "<!--zp_no_cache-->" and "<!--zp_server_url URL-->", so that a
// later run of the page optimiser over it neither caches it nor guesses the
// server.
//
//   void* h = CSavingsCalculator::Create(dir, dirLength, pageUrl, pageUrlLength,
//                                        serverUrl, serverUrlLength,
//                                        acceptCharset, acceptLanguage, userAgent);
//   CSavingsCalculator::AddWork(h, bytes, count);   // any number of times
//   CSavingsCalculator::DoWork(h);                  // once: downloads, writes
//   CSavingsCalculator::Destroy(h, t1, t2, t3, t4); // the totals, then frees
//
// Totals, in bytes: t1 every download as it travelled (response headers and
// body), t2 the same for the downloads whose responses may not be kept by a
// cache, t3 and t4 the same two with the bodies decoded.
//
// A handle is used by one thread at a time; DoWork blocks while it
// downloads (each resource at most 60 seconds).
#ifndef ZELVARPACK_SAVINGS_CALCULATOR_H_
#define ZELVARPACK_SAVINGS_CALCULATOR_H_

#include <cstdint>
#include <memory>

#include "zelvarpack/export.h"
#include "zelvarpack/html_events.h"

class CSavingsCalculator : public CHtmlConstructorEvents {
 public:
  // Copies the folder, the page's address and the server URL (the first
  // `length` bytes of each; null or a negative length count as empty). The
  // three header values are kept as pointers and sent with every download
  // when not null: the caller keeps them valid until Destroy.
  ZP_EXPORT static void* Create(unsigned char* directory, std::int32_t directoryLength,
                                unsigned char* pageUrl, std::int32_t pageUrlLength,
                                unsigned char* serverUrl, std::int32_t serverUrlLength,
                                const char* forwardA, const char* forwardB, const char* userAgent);
  // Appends page bytes; null or a negative count adds nothing.
  ZP_EXPORT static void AddWork(void* handle, unsigned char* data, std::int32_t length);
  // Copies the page, downloading and saving its resources, and writes
  // folder/index.html. A folder that cannot be written to gets nothing.
  ZP_EXPORT static void DoWork(void* handle);
  // Stores the four totals, then frees the handle (null: totals of 0).
  ZP_EXPORT static void Destroy(void* handle, std::int32_t& total1, std::int32_t& total2,
                                std::int32_t& total3, std::int32_t& total4);

  ~CSavingsCalculator() override;
  CSavingsCalculator(const CSavingsCalculator&) = delete;
  CSavingsCalculator& operator=(const CSavingsCalculator&) = delete;

  // The page's events while DoWork tokenizes it.
  void OnTag(HtmlTagToken* tag) override;
  void OnDoctype(HtmlDoctypeToken* doctype) override;
  void OnText(HtmlTextToken* text) override;

 private:
  struct State;
  CSavingsCalculator();
  std::unique_ptr<State> state_;
};

#endif  // ZELVARPACK_SAVINGS_CALCULATOR_H_
