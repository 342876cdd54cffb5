// CZelvarUtils gathers the services that every cache user needs: opening cache
// files so that concurrent workers (threads or processes sharing one cache
// folder) never see a half-written file.
//
// Readers share a file; a writer holds it alone. Both calls wait, retrying
// every 100 ms without limit, while another worker holds the file in a
// conflicting way. Safe to call from any thread.
#ifndef ZELVARPACK_ZELVAR_UTILS_H_
#define ZELVARPACK_ZELVAR_UTILS_H_

#include <cstdio>
#include <string>

#include "zelvarpack/export.h"

class ZP_EXPORT CZelvarUtils {
 public:
  CZelvarUtils();
  ~CZelvarUtils();

  // Opens an existing file for binary reading, shared with other readers.
  // Returns null at once when the file does not exist; otherwise waits while
  // a writer holds it. The caller closes the file with fclose.
  static FILE* OpenFileForReading(std::string path);

  // Creates or truncates a file for binary writing, held alone. Waits while
  // any reader or writer holds it, and (by design) for ever when the path can
  // never be opened: create the folders first. The caller closes it.
  static FILE* OpenFileForWriting(std::string path);
};

#endif  // ZELVARPACK_ZELVAR_UTILS_H_
