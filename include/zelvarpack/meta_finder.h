// CMetaFinder answers one question about a page: does some meta element carry
// http-equiv="content-type" (any case) and a content value containing
// "text/html"? Hosts use the static handle interface:
//   void* h = CMetaFinder::Create();
//   CMetaFinder::AddWork(h, bytes, count);   // any number of times
//   CMetaFinder::DoWork(h);                  // once
//   CMetaFinder::Destroy(h, result);         // result: 1 or 0
// A handle is used by one thread at a time.
#ifndef ZELVARPACK_META_FINDER_H_
#define ZELVARPACK_META_FINDER_H_

#include <cstdint>

#include "zelvarpack/export.h"
#include "zelvarpack/html_events.h"

class CHtmlConstructor;
class CZelvarBuffer;

class CMetaFinder : public CHtmlConstructorEvents {
 public:
  ZP_EXPORT static void* Create();
  ZP_EXPORT static void AddWork(void* handle, unsigned char* bytes, std::int32_t count);
  ZP_EXPORT static void DoWork(void* handle);
  ZP_EXPORT static void Destroy(void* handle, std::int32_t& result);

  CMetaFinder();
  ~CMetaFinder() override;
  CMetaFinder(const CMetaFinder&) = delete;
  CMetaFinder& operator=(const CMetaFinder&) = delete;

  void OnTag(HtmlTagToken* tag) override;

  bool Found() const { return found != 0; }

 private:
  unsigned char found = 0;
  CHtmlConstructor* constructor;
  CZelvarBuffer* page;
};

#endif  // ZELVARPACK_META_FINDER_H_
