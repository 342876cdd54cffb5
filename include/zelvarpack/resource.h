// CResource is one resource of a page (a stylesheet, image or script) as the
// page optimiser hands it around while it works on the page: it knows the
// CZelvarHtmlServer that owns it, so that code which is given only the
// resource can reach the page's settings and results.
//
// A resource never outlives its owner. It is read by any thread that holds
// it; it is not changed after construction.
#ifndef ZELVARPACK_RESOURCE_H_
#define ZELVARPACK_RESOURCE_H_

#include "zelvarpack/export.h"

class CResource {
 public:
  // REQUIRES: owner is the CZelvarHtmlServer the resource belongs to (or
  // null for a resource that belongs to no page).
  explicit CResource(void* owner) : owner_(owner) {}

  // The owning CZelvarHtmlServer, as an opaque pointer.
  ZP_EXPORT void* GetZelvarHtmlServer();

 private:
  void* owner_;
};

#endif  // ZELVARPACK_RESOURCE_H_
