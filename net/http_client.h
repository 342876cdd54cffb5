// Platform seam for HTTP: one GET over one fresh connection, built on
// libcurl. Nothing else in the library talks to libcurl.
//
// Every call uses its own transfer handle and its own connection, closed
// when the call returns; no proxy, no cookies, no authentication, redirects
// followed (at most 10; from https only to https). Certificates are verified
// against the system's trust store. Safe from any number of threads at once.
#ifndef ZELVARPACK_NET_HTTP_CLIENT_H_
#define ZELVARPACK_NET_HTTP_CLIENT_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zelvarpack/zelvar_buffer.h"

namespace zelvarpack::net {

struct HttpRequest {
  bool secure = false;               // TLS on port 443, else plain HTTP on port 80
  std::string host;                  // name or address; an IPv6 literal in brackets
  std::string path;                  // path and query, request-line safe
  std::vector<std::string> headers;  // whole "Name: value" lines, sent in order
  // Bounds connecting, and every wait for the server while sending the
  // request or receiving the response: a server that sends nothing for longer
  // ends the call. <= 0 means no limit.
  std::int32_t timeoutSeconds = 0;
  std::size_t maxBodyBytes = std::size_t{256} << 20;  // a longer body fails the call
};

struct HttpResponse {
  enum class Outcome {
    kNoResponse,  // no complete final header block (connect, send, TLS, ...)
    kBodyFailed,  // the final headers arrived, the body did not (all of it)
    kComplete,
  };
  Outcome outcome = Outcome::kNoResponse;
  int status = 0;
  // The final response's header block, line ends removed: the status line,
  // then each header line. Headers of redirects and 1xx answers and trailers
  // are not included.
  std::vector<std::string> headerLines;
  std::unique_ptr<CZelvarBuffer> body;  // never null; empty unless kComplete
};

HttpResponse HttpGet(const HttpRequest& request);

// The value of the first header `name` (ASCII case-insensitive) in a header
// block, with surrounding blanks removed; nothing when there is none.
std::optional<std::string> FindHeader(const std::vector<std::string>& headerLines,
                                      std::string_view name);

// Tests only: trust the certificates in `caFile` instead of the system's
// store from now on ("" restores the system's store). Not thread-safe
// against running calls.
void SetTrustedCertificatesForTesting(const std::string& caFile);

}  // namespace zelvarpack::net

#endif  // ZELVARPACK_NET_HTTP_CLIENT_H_
