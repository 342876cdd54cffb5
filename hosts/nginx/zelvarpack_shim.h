/* The nginx module's view of the engine: plain C calls over the library's
 * C++ classes, so the module itself stays a C file built the nginx way.
 *
 * Thread safety: zp_optimise_page and zp_handler_answer may run on any
 * number of threads at once (each call builds its own servers); nothing
 * here touches nginx memory. Every buffer handed back is malloc'd and freed
 * with zp_free. */
#ifndef ZELVARPACK_HOSTS_NGINX_ZELVARPACK_SHIM_H_
#define ZELVARPACK_HOSTS_NGINX_ZELVARPACK_SHIM_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One page on its way to a browser. The strings are NUL-terminated (NULL
 * counts as absent) and stay valid for the whole call. */
typedef struct {
  /* settings */
  const char *cache;
  const char *handler_path;
  const char *server_address; /* fetch relative resources from this host */
  int timeout_seconds;
  int fetch_foreign;
  int keep_comments;
  int scripts_off; /* the page's security policy forbids eval */
  int images_off;  /* ... or inline styles */
  int accepts_gzip;
  /* the request */
  const char *page_url;
  const char *client_address;
  const char *user_agent;
  const char *accept_charset;
  const char *accept_language;
  /* the page */
  const unsigned char *in;
  size_t in_len;
  /* results, set when zp_optimise_page returns 1 */
  unsigned char *out; /* malloc'd: the caller frees it with zp_free */
  size_t out_len;
  int out_gzip;
  int send_stats;
  int32_t bytes_before;
  int32_t bytes_after;
  int32_t requests_before;
  int32_t requests_after;
} zp_page_job_t;

/* Optimises job->in. Returns 1 with the new page in job->out, or 0 on any
 * failure (out of memory, an exception, an empty result): the caller then
 * sends the original page. */
int zp_optimise_page(zp_page_job_t *job);

enum { ZP_HANDLER_CSS = 1, ZP_HANDLER_JS = 2, ZP_HANDLER_IMAGE = 3 };

typedef struct {
  unsigned char *data; /* malloc'd, or NULL for the placeholder picture */
  const unsigned char *fixed; /* static bytes (the placeholder), never freed */
  size_t len;
  const char *type; /* static text */
  int gzip;
  int vary; /* the answer depends on Accept-Encoding */
} zp_handler_answer_t;

/* Reads the stored resource `id` of one kind back from the cache. Returns 1
 * with the answer, 0 when no such resource exists or on any failure. */
int zp_handler_answer(const char *cache, int kind, const char *id, int accepts_gzip,
                      zp_handler_answer_t *answer);

/* Whether `id` is shaped like a content identifier: 38 characters, braces
 * around upper- or lower-case hexadecimal groups 8-4-4-4-12. */
int zp_is_identifier(const char *id, size_t len);

/* Lets the library's background downloads end before the process exits. */
int zp_stop_background_work(int32_t timeout_milliseconds);

void zp_free(void *bytes);

#ifdef __cplusplus
}
#endif

#endif /* ZELVARPACK_HOSTS_NGINX_ZELVARPACK_SHIM_H_ */
