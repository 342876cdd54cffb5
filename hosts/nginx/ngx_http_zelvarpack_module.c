/*
 * ngx_http_zelvarpack_module: optimises HTML pages on their way to the
 * browser and answers the handler URLs (CS.zp, JS.zp, IS.zp) the optimised
 * pages refer to.
 *
 * Pages. The header filter picks a 200 text/html response of the main
 * request that is not HEAD, not a range, not already content-encoded, not
 * marked "Cache-Control: no-transform" and not announced larger than
 * zelvarpack_max_page; it holds the header back. The body filter collects
 * the whole body, then hands it to a task on nginx's thread pool (the
 * optimiser downloads and combines resources, which blocks; it never runs
 * on the event loop). While the task runs the request is blocked, as for
 * nginx's own threaded file reads. When the task ends, the request's write
 * handler runs the body filter again, which sends the new page with its own
 * Content-Length (gzipped when the client takes gzip and that is smaller),
 * or the original page unchanged on any failure. A deadline on the event
 * loop (the optimiser's time-out plus a margin) sends the original page if
 * the task runs late; the task is then detached and frees itself when it
 * ends.
 *
 * Handlers. A location with zelvarpack_handlers answers "NAME.zp?ID" from
 * the cache folder: content-named, so immutable, with the id as ETag.
 */

#include <ngx_config.h>
#include <ngx_core.h>
#include <ngx_http.h>
#include <ngx_thread_pool.h>

#include "zelvarpack_shim.h"

#if !(NGX_THREADS)
#error the module needs nginx built --with-threads
#endif

/* r->buffered bit: the page is held by this filter. */
#define NGX_HTTP_ZP_BUFFERED 0x08

typedef struct {
    ngx_flag_t           enable;
    ngx_str_t            cache;
    ngx_msec_t           timeout;
    ngx_str_t            handler_path;
    ngx_str_t            server_address;
    ngx_flag_t           fetch_foreign;
    ngx_flag_t           keep_comments;
    size_t               max_page;
    ngx_str_t            thread_pool_name;
    ngx_thread_pool_t   *thread_pool;
    ngx_flag_t           handlers;
    ngx_msec_t           page_memo;
} ngx_http_zp_loc_conf_t;

typedef enum {
    ZP_COLLECT = 0,  /* reading the page */
    ZP_WAIT,         /* the optimiser runs */
    ZP_READY,        /* the answer is ready to go out */
    ZP_PASS,         /* the page goes out untouched */
    ZP_DONE
} ngx_http_zp_state_e;

/* How a page ended, for $zelvarpack_result. */
static ngx_str_t  ngx_http_zp_results[] = {
    ngx_string("-"),
    ngx_string("optimised"),
    ngx_string("failed"),
    ngx_string("timeout"),
    ngx_string("too-large"),
};

enum {
    ZP_RESULT_NONE = 0,
    ZP_RESULT_OPTIMISED,
    ZP_RESULT_FAILED,
    ZP_RESULT_TIMEOUT,
    ZP_RESULT_TOO_LARGE
};

typedef struct ngx_http_zp_job_s  ngx_http_zp_job_t;

typedef struct {
    ngx_http_zp_state_e  state;
    ngx_uint_t           result;
    u_char              *page;       /* the original page, malloc'd */
    size_t               len;
    size_t               size;
    u_char              *original;   /* what to send on failure */
    size_t               original_len;
    u_char              *out;        /* the optimiser's page, malloc'd */
    size_t               out_len;
    unsigned             out_gzip:1;
    unsigned             send_stats:1;
    int32_t              bytes_before;
    int32_t              bytes_after;
    int32_t              requests_before;
    int32_t              requests_after;
    unsigned             memo_keyed:1;
    uint32_t             memo_crc;   /* the page and everything that shapes */
    uint32_t             memo_mix;   /* its result, hashed twice */
    ngx_http_zp_job_t   *job;        /* while the task runs */
    ngx_event_t          deadline;
    ngx_http_request_t  *request;
} ngx_http_zp_ctx_t;

/* One optimiser run. Allocated apart from the request, so a task that
 * outlives its deadline can finish and free itself. */
struct ngx_http_zp_job_s {
    ngx_thread_task_t    task;
    zp_page_job_t        page;
    u_char              *strings;
    ngx_http_zp_ctx_t   *ctx;        /* NULL once detached */
};

static ngx_int_t ngx_http_zp_add_variables(ngx_conf_t *cf);
static ngx_int_t ngx_http_zp_init(ngx_conf_t *cf);
static void *ngx_http_zp_create_loc_conf(ngx_conf_t *cf);
static char *ngx_http_zp_merge_loc_conf(ngx_conf_t *cf, void *parent, void *child);
static char *ngx_http_zp_handlers(ngx_conf_t *cf, ngx_command_t *cmd, void *conf);
static void ngx_http_zp_exit_process(ngx_cycle_t *cycle);

static ngx_command_t  ngx_http_zp_commands[] = {

    { ngx_string("zelvarpack"),
      NGX_HTTP_MAIN_CONF|NGX_HTTP_SRV_CONF|NGX_HTTP_LOC_CONF|NGX_CONF_FLAG,
      ngx_conf_set_flag_slot,
      NGX_HTTP_LOC_CONF_OFFSET,
      offsetof(ngx_http_zp_loc_conf_t, enable),
      NULL },

    { ngx_string("zelvarpack_cache"),
      NGX_HTTP_MAIN_CONF|NGX_HTTP_SRV_CONF|NGX_HTTP_LOC_CONF|NGX_CONF_TAKE1,
      ngx_conf_set_str_slot,
      NGX_HTTP_LOC_CONF_OFFSET,
      offsetof(ngx_http_zp_loc_conf_t, cache),
      NULL },

    { ngx_string("zelvarpack_timeout"),
      NGX_HTTP_MAIN_CONF|NGX_HTTP_SRV_CONF|NGX_HTTP_LOC_CONF|NGX_CONF_TAKE1,
      ngx_conf_set_msec_slot,
      NGX_HTTP_LOC_CONF_OFFSET,
      offsetof(ngx_http_zp_loc_conf_t, timeout),
      NULL },

    { ngx_string("zelvarpack_handler_path"),
      NGX_HTTP_MAIN_CONF|NGX_HTTP_SRV_CONF|NGX_HTTP_LOC_CONF|NGX_CONF_TAKE1,
      ngx_conf_set_str_slot,
      NGX_HTTP_LOC_CONF_OFFSET,
      offsetof(ngx_http_zp_loc_conf_t, handler_path),
      NULL },

    { ngx_string("zelvarpack_server_address"),
      NGX_HTTP_MAIN_CONF|NGX_HTTP_SRV_CONF|NGX_HTTP_LOC_CONF|NGX_CONF_TAKE1,
      ngx_conf_set_str_slot,
      NGX_HTTP_LOC_CONF_OFFSET,
      offsetof(ngx_http_zp_loc_conf_t, server_address),
      NULL },

    { ngx_string("zelvarpack_fetch_foreign"),
      NGX_HTTP_MAIN_CONF|NGX_HTTP_SRV_CONF|NGX_HTTP_LOC_CONF|NGX_CONF_FLAG,
      ngx_conf_set_flag_slot,
      NGX_HTTP_LOC_CONF_OFFSET,
      offsetof(ngx_http_zp_loc_conf_t, fetch_foreign),
      NULL },

    { ngx_string("zelvarpack_keep_comments"),
      NGX_HTTP_MAIN_CONF|NGX_HTTP_SRV_CONF|NGX_HTTP_LOC_CONF|NGX_CONF_FLAG,
      ngx_conf_set_flag_slot,
      NGX_HTTP_LOC_CONF_OFFSET,
      offsetof(ngx_http_zp_loc_conf_t, keep_comments),
      NULL },

    { ngx_string("zelvarpack_max_page"),
      NGX_HTTP_MAIN_CONF|NGX_HTTP_SRV_CONF|NGX_HTTP_LOC_CONF|NGX_CONF_TAKE1,
      ngx_conf_set_size_slot,
      NGX_HTTP_LOC_CONF_OFFSET,
      offsetof(ngx_http_zp_loc_conf_t, max_page),
      NULL },

    { ngx_string("zelvarpack_thread_pool"),
      NGX_HTTP_MAIN_CONF|NGX_HTTP_SRV_CONF|NGX_HTTP_LOC_CONF|NGX_CONF_TAKE1,
      ngx_conf_set_str_slot,
      NGX_HTTP_LOC_CONF_OFFSET,
      offsetof(ngx_http_zp_loc_conf_t, thread_pool_name),
      NULL },

    { ngx_string("zelvarpack_page_memo"),
      NGX_HTTP_MAIN_CONF|NGX_HTTP_SRV_CONF|NGX_HTTP_LOC_CONF|NGX_CONF_TAKE1,
      ngx_conf_set_msec_slot,
      NGX_HTTP_LOC_CONF_OFFSET,
      offsetof(ngx_http_zp_loc_conf_t, page_memo),
      NULL },

    { ngx_string("zelvarpack_handlers"),
      NGX_HTTP_LOC_CONF|NGX_CONF_NOARGS,
      ngx_http_zp_handlers,
      NGX_HTTP_LOC_CONF_OFFSET,
      0,
      NULL },

      ngx_null_command
};

static ngx_http_module_t  ngx_http_zp_module_ctx = {
    ngx_http_zp_add_variables,           /* preconfiguration */
    ngx_http_zp_init,                    /* postconfiguration */
    NULL,                                /* create main configuration */
    NULL,                                /* init main configuration */
    NULL,                                /* create server configuration */
    NULL,                                /* merge server configuration */
    ngx_http_zp_create_loc_conf,         /* create location configuration */
    ngx_http_zp_merge_loc_conf           /* merge location configuration */
};

ngx_module_t  ngx_http_zelvarpack_module = {
    NGX_MODULE_V1,
    &ngx_http_zp_module_ctx,             /* module context */
    ngx_http_zp_commands,                /* module directives */
    NGX_HTTP_MODULE,                     /* module type */
    NULL,                                /* init master */
    NULL,                                /* init module */
    NULL,                                /* init process */
    NULL,                                /* init thread */
    NULL,                                /* exit thread */
    ngx_http_zp_exit_process,            /* exit process */
    NULL,                                /* exit master */
    NGX_MODULE_V1_PADDING
};

static ngx_http_output_header_filter_pt  ngx_http_next_header_filter;
static ngx_http_output_body_filter_pt    ngx_http_next_body_filter;

static ngx_str_t  ngx_http_zp_default_pool = ngx_string("default");


/* Small text helpers. */

static ngx_table_elt_t *
ngx_http_zp_find_header(ngx_list_t *headers, const char *name, ngx_table_elt_t *after)
{
    size_t            len;
    ngx_uint_t        i;
    ngx_list_part_t  *part;
    ngx_table_elt_t  *h;
    ngx_flag_t        seen;

    len = ngx_strlen(name);
    seen = (after == NULL);
    part = &headers->part;
    h = part->elts;

    for (i = 0; /* void */; i++) {
        if (i >= part->nelts) {
            if (part->next == NULL) {
                return NULL;
            }
            part = part->next;
            h = part->elts;
            i = 0;
        }
        if (!seen) {
            if (&h[i] == after) {
                seen = 1;
            }
            continue;
        }
        if (h[i].hash != 0 && h[i].key.len == len
            && ngx_strncasecmp(h[i].key.data, (u_char *) name, len) == 0)
        {
            return &h[i];
        }
    }
}

static ngx_flag_t
ngx_http_zp_is_word(u_char c)
{
    return (c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z') || c == '-';
}

/* Whether `value` holds `token` as a whole word (letters, digits, '-' and
 * '\'' end a word), compared case-insensitively. */
static ngx_flag_t
ngx_http_zp_has_token(u_char *p, u_char *last, const char *token)
{
    size_t   n;
    u_char  *q;

    n = ngx_strlen(token);
    for (q = p; q + n <= last; q++) {
        if (ngx_strncasecmp(q, (u_char *) token, n) != 0) {
            continue;
        }
        if ((q == p || !ngx_http_zp_is_word(q[-1]))
            && (q + n == last || !ngx_http_zp_is_word(q[n])))
        {
            return 1;
        }
    }
    return 0;
}

static ngx_flag_t
ngx_http_zp_accepts_gzip(ngx_http_request_t *r)
{
    u_char           *p, *last, *item, *end, *semi;
    ngx_table_elt_t  *h;

    h = ngx_http_zp_find_header(&r->headers_in.headers, "Accept-Encoding", NULL);
    if (h == NULL) {
        return 0;
    }
    p = h->value.data;
    last = p + h->value.len;
    while (p < last) {
        item = p;
        end = ngx_strlchr(p, last, ',');
        if (end == NULL) {
            end = last;
        }
        p = end + 1;
        while (item < end && (*item == ' ' || *item == '\t')) {
            item++;
        }
        semi = ngx_strlchr(item, end, ';');
        if (semi == NULL) {
            semi = end;
        }
        while (semi > item && (semi[-1] == ' ' || semi[-1] == '\t')) {
            semi--;
        }
        if (!((semi - item == 4 && ngx_strncasecmp(item, (u_char *) "gzip", 4) == 0)
              || (semi - item == 1 && *item == '*')))
        {
            continue;
        }
        /* "gzip;q=0" (or 0.0, 0.00, ...) refuses it. */
        semi = ngx_strlchr(item, end, '=');
        if (semi == NULL) {
            return 1;
        }
        for (semi++; semi < end && (*semi == ' ' || *semi == '0' || *semi == '.'); semi++) {
            /* void */
        }
        return semi < end && *semi >= '1' && *semi <= '9';
    }
    return 0;
}

/* The policy named `directive` of one Content-Security-Policy value, or
 * NULL: sets *start and *end to its source list. */
static ngx_flag_t
ngx_http_zp_csp_directive(ngx_str_t *policy, const char *directive, u_char **start,
    u_char **end)
{
    size_t   n;
    u_char  *p, *last, *item, *stop;

    n = ngx_strlen(directive);
    p = policy->data;
    last = p + policy->len;
    while (p < last) {
        item = p;
        stop = ngx_strlchr(p, last, ';');
        if (stop == NULL) {
            stop = last;
        }
        p = stop + 1;
        while (item < stop && (*item == ' ' || *item == '\t')) {
            item++;
        }
        if ((size_t) (stop - item) >= n && ngx_strncasecmp(item, (u_char *) directive, n) == 0
            && (item + n == stop || item[n] == ' ' || item[n] == '\t'))
        {
            *start = item + n;
            *end = stop;
            return 1;
        }
    }
    return 0;
}

/* Whether a policy forbids what `keyword` allows, for the first of the
 * directives present (the later ones are fall-backs). */
static ngx_flag_t
ngx_http_zp_csp_forbids(ngx_str_t *policy, const char **directives, const char *keyword)
{
    u_char  *start, *end;

    for (; *directives != NULL; directives++) {
        if (ngx_http_zp_csp_directive(policy, *directives, &start, &end)) {
            return !ngx_http_zp_has_token(start, end, keyword);
        }
    }
    return 0;
}

static void
ngx_http_zp_read_csp(ngx_http_request_t *r, ngx_flag_t *scripts_off, ngx_flag_t *images_off)
{
    ngx_table_elt_t  *h;

    static const char *script_directives[] = { "script-src", "default-src", NULL };
    static const char *style_directives[] = { "style-src-attr", "style-src", "default-src",
                                              NULL };

    *scripts_off = 0;
    *images_off = 0;
    h = NULL;
    /* Every policy a response carries applies. */
    while ((h = ngx_http_zp_find_header(&r->headers_out.headers, "Content-Security-Policy", h))
           != NULL)
    {
        if (ngx_http_zp_csp_forbids(&h->value, script_directives, "'unsafe-eval'")) {
            *scripts_off = 1;
        }
        if (ngx_http_zp_csp_forbids(&h->value, style_directives, "'unsafe-inline'")) {
            *images_off = 1;
        }
    }
}

/* Copies `value` into the job's string block at *p; NULL stays NULL. */
static const char *
ngx_http_zp_put(u_char **p, u_char *value, size_t len, ngx_flag_t present)
{
    u_char  *start;

    if (!present) {
        return NULL;
    }
    start = *p;
    *p = ngx_cpymem(*p, value, len);
    *(*p)++ = '\0';
    return (const char *) start;
}

static ngx_table_elt_t *
ngx_http_zp_add_header(ngx_http_request_t *r, const char *key, u_char *value, size_t len)
{
    ngx_table_elt_t  *h;

    h = ngx_list_push(&r->headers_out.headers);
    if (h == NULL) {
        return NULL;
    }
    h->hash = 1;
    h->key.data = (u_char *) key;
    h->key.len = ngx_strlen(key);
    h->value.data = value;
    h->value.len = len;
    h->lowcase_key = NULL;
    return h;
}


/* The page filter. */

static void
ngx_http_zp_cleanup(void *data)
{
    ngx_http_zp_ctx_t  *ctx = data;

    if (ctx->deadline.timer_set) {
        ngx_del_timer(&ctx->deadline);
    }
    if (ctx->job != NULL) {
        /* The task still runs: it frees itself when it ends. */
        ctx->job->ctx = NULL;
        ctx->job = NULL;
    }
    if (ctx->page != NULL) {
        ngx_free(ctx->page);
        ctx->page = NULL;
    }
    if (ctx->out != NULL) {
        zp_free(ctx->out);
        ctx->out = NULL;
    }
}

static ngx_int_t
ngx_http_zp_header_filter(ngx_http_request_t *r)
{
    ngx_table_elt_t         *h;
    ngx_http_zp_ctx_t       *ctx;
    ngx_pool_cleanup_t      *cln;
    ngx_http_zp_loc_conf_t  *conf;

    conf = ngx_http_get_module_loc_conf(r, ngx_http_zelvarpack_module);

    if (!conf->enable
        || r != r->main
        || r->headers_out.status != NGX_HTTP_OK
        || r->header_only
        || (r->method & NGX_HTTP_HEAD)
        || r->headers_in.range != NULL
        || (r->headers_out.content_encoding != NULL
            && r->headers_out.content_encoding->value.len != 0)
        || r->headers_out.content_type.len < sizeof("text/html") - 1
        || ngx_strncasecmp(r->headers_out.content_type.data, (u_char *) "text/html",
                           sizeof("text/html") - 1) != 0
        || (r->headers_out.content_length_n >= 0
            && (size_t) r->headers_out.content_length_n > conf->max_page)
        || r->headers_out.content_length_n == 0)
    {
        return ngx_http_next_header_filter(r);
    }

    for (h = NULL;
         (h = ngx_http_zp_find_header(&r->headers_out.headers, "Cache-Control", h)) != NULL;
         /* void */)
    {
        if (ngx_http_zp_has_token(h->value.data, h->value.data + h->value.len,
                                  "no-transform"))
        {
            return ngx_http_next_header_filter(r);
        }
    }

    ctx = ngx_pcalloc(r->pool, sizeof(ngx_http_zp_ctx_t));
    if (ctx == NULL) {
        return NGX_ERROR;
    }
    cln = ngx_pool_cleanup_add(r->pool, 0);
    if (cln == NULL) {
        return NGX_ERROR;
    }
    cln->handler = ngx_http_zp_cleanup;
    cln->data = ctx;
    ctx->request = r;
    ctx->state = ZP_COLLECT;
    ngx_http_set_ctx(r, ctx, ngx_http_zelvarpack_module);

    if (r->headers_out.content_length_n > 0) {
        ctx->size = (size_t) r->headers_out.content_length_n;
        ctx->page = ngx_alloc(ctx->size, r->connection->log);
        if (ctx->page == NULL) {
            ctx->size = 0;
            ctx->state = ZP_PASS;
            return ngx_http_next_header_filter(r);
        }
    }

    /* The body must reach this filter in memory, not as file pieces. */
    r->filter_need_in_memory = 1;
    return NGX_OK;
}

/* Appends bytes to the collected page; false when it cannot grow. */
static ngx_flag_t
ngx_http_zp_append(ngx_http_zp_ctx_t *ctx, u_char *p, size_t n, ngx_log_t *log)
{
    size_t   size;
    u_char  *bigger;

    if (n == 0) {
        return 1;
    }
    if (ctx->len + n > ctx->size) {
        size = ctx->size ? ctx->size : 16384;
        while (size < ctx->len + n) {
            size *= 2;
        }
        bigger = ngx_alloc(size, log);
        if (bigger == NULL) {
            return 0;
        }
        if (ctx->len) {
            ngx_memcpy(bigger, ctx->page, ctx->len);
        }
        if (ctx->page != NULL) {
            ngx_free(ctx->page);
        }
        ctx->page = bigger;
        ctx->size = size;
    }
    ngx_memcpy(ctx->page + ctx->len, p, n);
    ctx->len += n;
    return 1;
}

/* Gives up on the page while it is being read: the header goes out as it
 * came, then what was collected, then `rest`. */
static ngx_int_t
ngx_http_zp_pass(ngx_http_request_t *r, ngx_http_zp_ctx_t *ctx, ngx_chain_t *rest)
{
    ngx_int_t     rc;
    ngx_buf_t    *b;
    ngx_chain_t  *cl;

    ctx->state = ZP_PASS;
    rc = ngx_http_next_header_filter(r);
    if (rc == NGX_ERROR || rc > NGX_OK || r->header_only) {
        return rc;
    }
    if (ctx->len == 0) {
        return ngx_http_next_body_filter(r, rest);
    }
    b = ngx_calloc_buf(r->pool);
    cl = ngx_alloc_chain_link(r->pool);
    if (b == NULL || cl == NULL) {
        return NGX_ERROR;
    }
    b->pos = ctx->page;
    b->last = ctx->page + ctx->len;
    b->memory = 1;
    cl->buf = b;
    cl->next = rest;
    return ngx_http_next_body_filter(r, cl);
}


/* The page memo: each worker keeps the last results of recently optimised
 * pages for zelvarpack_page_memo, so a page asked for again and again is
 * not optimised again every time. An entry is keyed by two hashes of the
 * page's bytes and of everything that shapes the result (the location, the
 * URL, the request headers the optimiser reads, the policy switches, gzip);
 * a different page or request misses. Slots are direct-mapped and bounded,
 * so the memo holds at most ZP_MEMO_SLOTS * ZP_MEMO_MAX_ENTRY bytes. */

#define ZP_MEMO_SLOTS      32
#define ZP_MEMO_MAX_ENTRY  (512 * 1024)

typedef struct {
    uint32_t    crc;
    uint32_t    mix;
    ngx_msec_t  expires;
    u_char     *out;
    size_t      out_len;
    unsigned    out_gzip:1;
    unsigned    send_stats:1;
    int32_t     counters[4];
} ngx_http_zp_memo_t;

static ngx_http_zp_memo_t  ngx_http_zp_memo[ZP_MEMO_SLOTS];

static void
ngx_http_zp_hash_part(uint32_t *crc, uint32_t *mix, u_char *p, size_t len)
{
    size_t  i;

    ngx_crc32_update(crc, p, len);
    for (i = 0; i < len; i++) {
        *mix = (*mix ^ p[i]) * 16777619u;
    }
}

static void
ngx_http_zp_memo_key(ngx_http_request_t *r, ngx_http_zp_ctx_t *ctx,
    ngx_http_zp_loc_conf_t *conf)
{
    uint32_t          crc, mix;
    u_char            flags[3 + sizeof(void *)];
    ngx_flag_t        scripts_off, images_off;
    ngx_table_elt_t  *h;
    ngx_uint_t        i;
    static const char *names[] = { "User-Agent", "Accept-Language", "Accept-Charset",
                                   "Host", NULL };

    ngx_crc32_init(crc);
    mix = 2166136261u;
    ngx_http_zp_read_csp(r, &scripts_off, &images_off);
    flags[0] = (u_char) scripts_off;
    flags[1] = (u_char) images_off;
    flags[2] = (u_char) ngx_http_zp_accepts_gzip(r);
    ngx_memcpy(flags + 3, &conf, sizeof(void *));
    ngx_http_zp_hash_part(&crc, &mix, flags, sizeof(flags));
    ngx_http_zp_hash_part(&crc, &mix, r->unparsed_uri.data, r->unparsed_uri.len);
    for (i = 0; names[i] != NULL; i++) {
        h = ngx_http_zp_find_header(&r->headers_in.headers, names[i], NULL);
        ngx_http_zp_hash_part(&crc, &mix, (u_char *) "\n", 1);
        if (h != NULL) {
            ngx_http_zp_hash_part(&crc, &mix, h->value.data, h->value.len);
        }
    }
    ngx_http_zp_hash_part(&crc, &mix, ctx->page, ctx->len);
    ngx_crc32_final(crc);
    ctx->memo_crc = crc;
    ctx->memo_mix = mix;
}

/* True when the memo answered: ctx holds the result. */
static ngx_flag_t
ngx_http_zp_memo_find(ngx_http_request_t *r, ngx_http_zp_ctx_t *ctx)
{
    ngx_http_zp_memo_t  *m;

    m = &ngx_http_zp_memo[ctx->memo_crc % ZP_MEMO_SLOTS];
    if (m->out == NULL || m->crc != ctx->memo_crc || m->mix != ctx->memo_mix
        || (ngx_msec_int_t) (m->expires - ngx_current_msec) <= 0)
    {
        return 0;
    }
    ctx->out = ngx_alloc(m->out_len, r->connection->log);
    if (ctx->out == NULL) {
        return 0;
    }
    ngx_memcpy(ctx->out, m->out, m->out_len);
    ctx->out_len = m->out_len;
    ctx->out_gzip = m->out_gzip;
    ctx->send_stats = m->send_stats;
    ctx->bytes_before = m->counters[0];
    ctx->bytes_after = m->counters[1];
    ctx->requests_before = m->counters[2];
    ctx->requests_after = m->counters[3];
    ctx->result = ZP_RESULT_OPTIMISED;
    return 1;
}

static void
ngx_http_zp_memo_keep(ngx_http_zp_ctx_t *ctx, ngx_msec_t ttl)
{
    u_char              *copy;
    ngx_http_zp_memo_t  *m;

    if (ttl == 0 || ctx->out_len == 0 || ctx->out_len > ZP_MEMO_MAX_ENTRY) {
        return;
    }
    copy = ngx_alloc(ctx->out_len, ngx_cycle->log);
    if (copy == NULL) {
        return;
    }
    ngx_memcpy(copy, ctx->out, ctx->out_len);
    m = &ngx_http_zp_memo[ctx->memo_crc % ZP_MEMO_SLOTS];
    if (m->out != NULL) {
        ngx_free(m->out);
    }
    m->crc = ctx->memo_crc;
    m->mix = ctx->memo_mix;
    m->expires = ngx_current_msec + ttl;
    m->out = copy;
    m->out_len = ctx->out_len;
    m->out_gzip = ctx->out_gzip;
    m->send_stats = ctx->send_stats;
    m->counters[0] = ctx->bytes_before;
    m->counters[1] = ctx->bytes_after;
    m->counters[2] = ctx->requests_before;
    m->counters[3] = ctx->requests_after;
}

static void ngx_http_zp_task(void *data, ngx_log_t *log);
static void ngx_http_zp_task_done(ngx_event_t *ev);
static void ngx_http_zp_deadline(ngx_event_t *ev);

static ngx_int_t
ngx_http_zp_start(ngx_http_request_t *r, ngx_http_zp_ctx_t *ctx)
{
    u_char                  *p;
    size_t                   size, url_len;
    ngx_str_t                host;
    ngx_flag_t               scripts_off, images_off;
    ngx_table_elt_t         *ua, *charset, *language, *hh;
    ngx_http_zp_job_t       *job;
    ngx_http_zp_loc_conf_t  *conf;
    const char              *scheme;
    ngx_msec_t               margin;

    conf = ngx_http_get_module_loc_conf(r, ngx_http_zelvarpack_module);

    ua = r->headers_in.user_agent;
    charset = ngx_http_zp_find_header(&r->headers_in.headers, "Accept-Charset", NULL);
    language = ngx_http_zp_find_header(&r->headers_in.headers, "Accept-Language", NULL);
    hh = r->headers_in.host;
    if (hh != NULL) {
        host = hh->value;
    } else {
        host = r->headers_in.server;
    }
    scheme = "http://";
#if (NGX_HTTP_SSL)
    if (r->connection->ssl) {
        scheme = "https://";
    }
#endif
    url_len = ngx_strlen(scheme) + host.len + r->unparsed_uri.len;

    size = conf->cache.len + conf->handler_path.len + conf->server_address.len + url_len
           + r->connection->addr_text.len + (ua ? ua->value.len : 0)
           + (charset ? charset->value.len : 0) + (language ? language->value.len : 0) + 8;

    job = ngx_calloc(sizeof(ngx_http_zp_job_t), r->connection->log);
    if (job == NULL) {
        return NGX_ERROR;
    }
    job->strings = ngx_alloc(size, r->connection->log);
    if (job->strings == NULL) {
        ngx_free(job);
        return NGX_ERROR;
    }

    p = job->strings;
    job->page.cache = ngx_http_zp_put(&p, conf->cache.data, conf->cache.len, 1);
    job->page.handler_path = ngx_http_zp_put(&p, conf->handler_path.data,
                                             conf->handler_path.len, 1);
    job->page.server_address = ngx_http_zp_put(&p, conf->server_address.data,
                                               conf->server_address.len,
                                               conf->server_address.len != 0);
    job->page.page_url = (const char *) p;
    p = ngx_cpymem(p, scheme, ngx_strlen(scheme));
    p = ngx_cpymem(p, host.data, host.len);
    p = ngx_cpymem(p, r->unparsed_uri.data, r->unparsed_uri.len);
    *p++ = '\0';
    job->page.client_address = ngx_http_zp_put(&p, r->connection->addr_text.data,
                                               r->connection->addr_text.len, 1);
    job->page.user_agent = ngx_http_zp_put(&p, ua ? ua->value.data : NULL,
                                           ua ? ua->value.len : 0, ua != NULL);
    job->page.accept_charset = ngx_http_zp_put(&p, charset ? charset->value.data : NULL,
                                               charset ? charset->value.len : 0,
                                               charset != NULL);
    job->page.accept_language = ngx_http_zp_put(&p, language ? language->value.data : NULL,
                                                language ? language->value.len : 0,
                                                language != NULL);

    job->page.timeout_seconds = (int) ((conf->timeout + 999) / 1000);
    if (job->page.timeout_seconds < 1) {
        job->page.timeout_seconds = 1;
    }
    job->page.fetch_foreign = conf->fetch_foreign ? 1 : 0;
    job->page.keep_comments = conf->keep_comments ? 1 : 0;
    ngx_http_zp_read_csp(r, &scripts_off, &images_off);
    job->page.scripts_off = scripts_off ? 1 : 0;
    job->page.images_off = images_off ? 1 : 0;
    job->page.accepts_gzip = ngx_http_zp_accepts_gzip(r) ? 1 : 0;

    /* The job owns the page from here; the context keeps a view of it for
     * the deadline, which copies it out before detaching. */
    job->page.in = ctx->page;
    job->page.in_len = ctx->len;

    job->task.ctx = job;
    job->task.handler = ngx_http_zp_task;
    job->task.event.data = job;
    job->task.event.handler = ngx_http_zp_task_done;
    job->task.event.log = ngx_cycle->log;
    job->ctx = ctx;

    if (ngx_thread_task_post(conf->thread_pool, &job->task) != NGX_OK) {
        ngx_free(job->strings);
        ngx_free(job);
        return NGX_ERROR;
    }

    ctx->job = job;
    ctx->page = NULL;
    ctx->state = ZP_WAIT;

    /* The optimiser waits conf->timeout for downloads, then combines; the
     * margin covers the combining of a large page. */
    margin = conf->timeout / 2;
    if (margin < 1000) {
        margin = 1000;
    }
    ctx->deadline.handler = ngx_http_zp_deadline;
    ctx->deadline.data = ctx;
    ctx->deadline.log = r->connection->log;
    ngx_add_timer(&ctx->deadline, (ngx_msec_t) job->page.timeout_seconds * 1000 + margin);

    r->main->blocked++;
    r->aio = 1;
    r->buffered |= NGX_HTTP_ZP_BUFFERED;
    return NGX_OK;
}

/* On a thread of the pool. */
static void
ngx_http_zp_task(void *data, ngx_log_t *log)
{
    ngx_http_zp_job_t  *job = data;

    if (!zp_optimise_page(&job->page)) {
        job->page.out = NULL;
    }
}

static void
ngx_http_zp_free_job(ngx_http_zp_job_t *job)
{
    if (job->page.out != NULL) {
        zp_free(job->page.out);
    }
    ngx_free((void *) job->page.in);
    ngx_free(job->strings);
    ngx_free(job);
}

/* Lets the request go on after the task or the deadline. */
static void
ngx_http_zp_resume(ngx_http_request_t *r)
{
    ngx_connection_t  *c;

    c = r->connection;
    ngx_http_set_log_request(c->log, r);
    r->main->blocked--;
    r->aio = 0;

    if (r->done) {
        c->write->handler(c->write);
    } else {
        r->write_event_handler(r);
        ngx_http_run_posted_requests(c);
    }
}

/* On the event loop, when the task has ended. */
static void
ngx_http_zp_task_done(ngx_event_t *ev)
{
    ngx_http_zp_job_t       *job = ev->data;
    ngx_http_zp_ctx_t       *ctx;
    ngx_http_zp_loc_conf_t  *conf;

    ctx = job->ctx;
    if (ctx == NULL) {
        ngx_http_zp_free_job(job);
        return;
    }
    ctx->job = NULL;
    if (ctx->deadline.timer_set) {
        ngx_del_timer(&ctx->deadline);
    }

    /* The page comes back to the context either way. */
    ctx->page = (u_char *) job->page.in;
    ctx->original = ctx->page;
    ctx->original_len = job->page.in_len;
    job->page.in = NULL;
    if (job->page.out != NULL) {
        ctx->out = job->page.out;
        ctx->out_len = job->page.out_len;
        ctx->out_gzip = job->page.out_gzip ? 1 : 0;
        ctx->send_stats = job->page.send_stats ? 1 : 0;
        ctx->bytes_before = job->page.bytes_before;
        ctx->bytes_after = job->page.bytes_after;
        ctx->requests_before = job->page.requests_before;
        ctx->requests_after = job->page.requests_after;
        ctx->result = ZP_RESULT_OPTIMISED;
        job->page.out = NULL;
        conf = ngx_http_get_module_loc_conf(ctx->request, ngx_http_zelvarpack_module);
        if (ctx->memo_keyed) {
            ngx_http_zp_memo_keep(ctx, conf->page_memo);
        }
    } else {
        ctx->result = ZP_RESULT_FAILED;
    }
    ngx_http_zp_free_job(job);

    ctx->state = ZP_READY;
    ngx_http_zp_resume(ctx->request);
}

/* On the event loop, when the task runs late: the original page goes out
 * now and the task is left to end on its own. */
static void
ngx_http_zp_deadline(ngx_event_t *ev)
{
    ngx_http_zp_ctx_t   *ctx = ev->data;
    ngx_http_request_t  *r = ctx->request;
    ngx_http_zp_job_t   *job = ctx->job;

    if (job == NULL) {
        return;
    }
    ngx_log_error(NGX_LOG_WARN, r->connection->log, 0,
                  "zelvarpack: optimising took too long, the page goes out as it came");
    ctx->original_len = job->page.in_len;
    ctx->original = ngx_pnalloc(r->pool, ctx->original_len);
    if (ctx->original != NULL) {
        ngx_memcpy(ctx->original, job->page.in, ctx->original_len);
    }
    job->ctx = NULL;
    ctx->job = NULL;
    ctx->result = ZP_RESULT_TIMEOUT;
    ctx->state = ZP_READY;
    if (ctx->original == NULL) {
        r->connection->error = 1;
    }
    ngx_http_zp_resume(r);
}

/* Sends the ready answer: the new page, or the original one. */
static ngx_int_t
ngx_http_zp_send(ngx_http_request_t *r, ngx_http_zp_ctx_t *ctx)
{
    u_char       *p;
    size_t        len;
    ngx_int_t     rc;
    ngx_buf_t    *b;
    ngx_chain_t   out;

    ctx->state = ZP_DONE;
    r->buffered &= ~NGX_HTTP_ZP_BUFFERED;

    if (ctx->result == ZP_RESULT_OPTIMISED) {
        p = ctx->out;
        len = ctx->out_len;

        r->headers_out.content_length_n = (off_t) len;
        if (r->headers_out.content_length) {
            r->headers_out.content_length->hash = 0;
            r->headers_out.content_length = NULL;
        }
        /* The body changed: the upstream's validators no longer name it. */
        ngx_http_clear_etag(r);
        ngx_http_clear_last_modified(r);
        ngx_http_clear_accept_ranges(r);
        if (ctx->out_gzip) {
            r->headers_out.content_encoding =
                ngx_http_zp_add_header(r, "Content-Encoding", (u_char *) "gzip", 4);
            if (r->headers_out.content_encoding == NULL) {
                return NGX_ERROR;
            }
        }
        if (ngx_http_zp_add_header(r, "Vary", (u_char *) "Accept-Encoding",
                                   sizeof("Accept-Encoding") - 1) == NULL)
        {
            return NGX_ERROR;
        }
        if (ctx->send_stats) {
            u_char  *stats;

            stats = ngx_pnalloc(r->pool, 4 * NGX_INT32_LEN + 64);
            if (stats == NULL) {
                return NGX_ERROR;
            }
            len = ngx_sprintf(stats, "bytes-before=%D; bytes-after=%D; "
                              "requests-before=%D; requests-after=%D",
                              ctx->bytes_before, ctx->bytes_after, ctx->requests_before,
                              ctx->requests_after) - stats;
            if (ngx_http_zp_add_header(r, "X-ZelvarPack-Stats", stats, len) == NULL) {
                return NGX_ERROR;
            }
            len = ctx->out_len;
        }
    } else {
        p = ctx->original;
        len = ctx->original_len;
        if (r->headers_out.content_length_n < 0) {
            r->headers_out.content_length_n = (off_t) len;
        }
    }

    rc = ngx_http_next_header_filter(r);
    if (rc == NGX_ERROR || rc > NGX_OK || r->header_only) {
        return rc;
    }

    b = ngx_calloc_buf(r->pool);
    if (b == NULL) {
        return NGX_ERROR;
    }
    b->pos = p;
    b->last = p + len;
    b->memory = len != 0;
    b->last_buf = 1;
    b->last_in_chain = 1;
    out.buf = b;
    out.next = NULL;
    return ngx_http_next_body_filter(r, &out);
}

static ngx_int_t
ngx_http_zp_body_filter(ngx_http_request_t *r, ngx_chain_t *in)
{
    size_t                   n;
    ngx_flag_t               last;
    ngx_chain_t             *cl;
    ngx_http_zp_ctx_t       *ctx;
    ngx_http_zp_loc_conf_t  *conf;

    ctx = ngx_http_get_module_ctx(r, ngx_http_zelvarpack_module);
    if (ctx == NULL || ctx->state == ZP_PASS || ctx->state == ZP_DONE) {
        return ngx_http_next_body_filter(r, in);
    }

    if (ctx->state == ZP_WAIT) {
        /* Nothing follows the last buffer; stay held. */
        return NGX_OK;
    }

    if (ctx->state == ZP_READY) {
        return ngx_http_zp_send(r, ctx);
    }

    conf = ngx_http_get_module_loc_conf(r, ngx_http_zelvarpack_module);
    last = 0;
    for (cl = in; cl != NULL; cl = cl->next) {
        if (!ngx_buf_in_memory(cl->buf) && ngx_buf_size(cl->buf) != 0) {
            /* A file piece no reader put into memory: do not guess. */
            ctx->result = ZP_RESULT_FAILED;
            return ngx_http_zp_pass(r, ctx, cl);
        }
        n = ngx_buf_in_memory(cl->buf) ? (size_t) (cl->buf->last - cl->buf->pos) : 0;
        if (ctx->len + n > conf->max_page) {
            ctx->result = ZP_RESULT_TOO_LARGE;
            return ngx_http_zp_pass(r, ctx, cl);
        }
        if (!ngx_http_zp_append(ctx, cl->buf->pos, n, r->connection->log)) {
            ctx->result = ZP_RESULT_FAILED;
            return ngx_http_zp_pass(r, ctx, cl);
        }
        cl->buf->pos = cl->buf->last;
        if (cl->buf->in_file) {
            cl->buf->file_pos = cl->buf->file_last;
        }
        if (cl->buf->last_buf) {
            last = 1;
        }
    }

    if (!last) {
        return NGX_OK;
    }
    /* Larger pages are not hashed on the event loop: they skip the memo. */
    if (conf->page_memo && ctx->len != 0 && ctx->len <= ZP_MEMO_MAX_ENTRY) {
        ngx_http_zp_memo_key(r, ctx, conf);
        ctx->memo_keyed = 1;
        if (ngx_http_zp_memo_find(r, ctx)) {
            ctx->state = ZP_READY;
            return ngx_http_zp_send(r, ctx);
        }
    }
    if (ctx->len == 0 || ngx_http_zp_start(r, ctx) != NGX_OK) {
        /* Could not hand it over: the page goes out as it came. */
        ctx->result = ZP_RESULT_FAILED;
        ctx->original = ctx->page;
        ctx->original_len = ctx->len;
        return ngx_http_zp_send(r, ctx);
    }
    return NGX_OK;
}


/* The handlers. */

static ngx_int_t
ngx_http_zp_hex(u_char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c |= 0x20;
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

/* Percent-decodes src into dst (at least src->len bytes); false for a
 * broken escape. */
static ngx_flag_t
ngx_http_zp_unescape(ngx_str_t *src, u_char *dst, size_t *len)
{
    size_t     i;
    ngx_int_t  hi, lo;
    u_char    *p = dst;

    for (i = 0; i < src->len; i++) {
        if (src->data[i] != '%') {
            *p++ = src->data[i];
            continue;
        }
        if (i + 2 >= src->len) {
            return 0;
        }
        hi = ngx_http_zp_hex(src->data[i + 1]);
        lo = ngx_http_zp_hex(src->data[i + 2]);
        if (hi < 0 || lo < 0) {
            return 0;
        }
        *p++ = (u_char) (hi * 16 + lo);
        i += 2;
    }
    *len = p - dst;
    return 1;
}

/* Handler answers are content-named, so they never change: each worker
 * keeps the last ones it read (direct-mapped by id, bounded like the page
 * memo) and answers them again without reading the cache folder. */

#define ZP_ANSWER_SLOTS      64
#define ZP_ANSWER_MAX_ENTRY  (256 * 1024)

typedef struct {
    u_char      id[38];
    int         kind;
    int         gzip_asked;
    u_char     *data;
    size_t      len;
    const char *type;
    unsigned    gzip:1;
    unsigned    vary:1;
} ngx_http_zp_answer_t;

static ngx_http_zp_answer_t  ngx_http_zp_answers[ZP_ANSWER_SLOTS];

static ngx_http_zp_answer_t *
ngx_http_zp_answer_slot(u_char *id, int kind, int gzip_asked)
{
    uint32_t  crc;

    crc = ngx_crc32_short(id, 38);
    return &ngx_http_zp_answers[(crc ^ (uint32_t) (kind * 2 + gzip_asked)) % ZP_ANSWER_SLOTS];
}

static void
ngx_http_zp_free_answer(void *data)
{
    zp_free(data);
}

static ngx_int_t
ngx_http_zp_handler(ngx_http_request_t *r)
{
    int                      kind, gzip_asked;
    u_char                  *id, *name, *etag;
    ngx_http_zp_answer_t    *slot;
    size_t                   id_len;
    ngx_int_t                rc;
    ngx_buf_t               *b;
    ngx_chain_t              out;
    ngx_table_elt_t         *h, *inm;
    ngx_pool_cleanup_t      *cln;
    zp_handler_answer_t      answer;
    ngx_http_zp_loc_conf_t  *conf;

    if (!(r->method & (NGX_HTTP_GET|NGX_HTTP_HEAD))) {
        return NGX_HTTP_NOT_ALLOWED;
    }
    rc = ngx_http_discard_request_body(r);
    if (rc != NGX_OK) {
        return rc;
    }

    conf = ngx_http_get_module_loc_conf(r, ngx_http_zelvarpack_module);

    name = r->uri.data + r->uri.len;
    while (name > r->uri.data && name[-1] != '/') {
        name--;
    }
    if ((size_t) (r->uri.data + r->uri.len - name) != sizeof("CS.zp") - 1) {
        return NGX_HTTP_NOT_FOUND;
    }
    if (ngx_strncmp(name, "CS.zp", 5) == 0) {
        kind = ZP_HANDLER_CSS;
    } else if (ngx_strncmp(name, "JS.zp", 5) == 0) {
        kind = ZP_HANDLER_JS;
    } else if (ngx_strncmp(name, "IS.zp", 5) == 0) {
        kind = ZP_HANDLER_IMAGE;
    } else {
        return NGX_HTTP_NOT_FOUND;
    }

    /* The id is the whole query, braces possibly percent-encoded. */
    id = ngx_pnalloc(r->pool, r->args.len + 1);
    if (id == NULL) {
        return NGX_HTTP_INTERNAL_SERVER_ERROR;
    }
    if (!ngx_http_zp_unescape(&r->args, id, &id_len) || !zp_is_identifier((char *) id, id_len))
    {
        return NGX_HTTP_NOT_FOUND;
    }
    id[id_len] = '\0';

    etag = ngx_pnalloc(r->pool, id_len + 2);
    if (etag == NULL) {
        return NGX_HTTP_INTERNAL_SERVER_ERROR;
    }
    etag[0] = '"';
    ngx_memcpy(etag + 1, id, id_len);
    etag[id_len + 1] = '"';

    inm = r->headers_in.if_none_match;
    if (inm == NULL) {
        inm = ngx_http_zp_find_header(&r->headers_in.headers, "If-None-Match", NULL);
    }
    if (inm != NULL && ngx_strlcasestrn(inm->value.data, inm->value.data + inm->value.len,
                                        id, id_len - 1) != NULL)
    {
        r->headers_out.status = NGX_HTTP_NOT_MODIFIED;
        r->header_only = 1;
        r->headers_out.content_length_n = -1;
        if (ngx_http_zp_add_header(r, "Cache-Control",
                                   (u_char *) "public, max-age=31536000, immutable",
                                   sizeof("public, max-age=31536000, immutable") - 1) == NULL)
        {
            return NGX_HTTP_INTERNAL_SERVER_ERROR;
        }
        r->headers_out.etag = ngx_http_zp_add_header(r, "ETag", etag, id_len + 2);
        if (r->headers_out.etag == NULL) {
            return NGX_HTTP_INTERNAL_SERVER_ERROR;
        }
        return ngx_http_send_header(r);
    }

    gzip_asked = ngx_http_zp_accepts_gzip(r) ? 1 : 0;
    slot = ngx_http_zp_answer_slot(id, kind, gzip_asked);
    if (slot->data != NULL && slot->kind == kind && slot->gzip_asked == gzip_asked
        && ngx_memcmp(slot->id, id, 38) == 0)
    {
        ngx_memzero(&answer, sizeof(answer));
        answer.fixed = slot->data;
        answer.len = slot->len;
        answer.type = slot->type;
        answer.gzip = slot->gzip;
        answer.vary = slot->vary;
    } else if (!zp_handler_answer((const char *) conf->cache.data, kind, (const char *) id,
                                  gzip_asked, &answer))
    {
        return NGX_HTTP_NOT_FOUND;
    } else if (answer.data != NULL && answer.len <= ZP_ANSWER_MAX_ENTRY) {
        /* The slot takes the bytes over; they live as long as the worker. */
        if (slot->data != NULL) {
            zp_free(slot->data);
        }
        ngx_memcpy(slot->id, id, 38);
        slot->kind = kind;
        slot->gzip_asked = gzip_asked;
        slot->data = answer.data;
        slot->len = answer.len;
        slot->type = answer.type;
        slot->gzip = answer.gzip;
        slot->vary = answer.vary;
        answer.fixed = answer.data;
        answer.data = NULL;
    }
    if (answer.data != NULL) {
        cln = ngx_pool_cleanup_add(r->pool, 0);
        if (cln == NULL) {
            zp_free(answer.data);
            return NGX_HTTP_INTERNAL_SERVER_ERROR;
        }
        cln->handler = ngx_http_zp_free_answer;
        cln->data = answer.data;
    }

    r->headers_out.status = NGX_HTTP_OK;
    r->headers_out.content_length_n = (off_t) answer.len;
    r->headers_out.content_type.data = (u_char *) answer.type;
    r->headers_out.content_type.len = ngx_strlen(answer.type);
    r->headers_out.content_type_len = r->headers_out.content_type.len;
    r->headers_out.content_type_lowcase = NULL;
    if (ngx_http_zp_add_header(r, "Cache-Control",
                               (u_char *) "public, max-age=31536000, immutable",
                               sizeof("public, max-age=31536000, immutable") - 1) == NULL)
    {
        return NGX_HTTP_INTERNAL_SERVER_ERROR;
    }
    r->headers_out.etag = ngx_http_zp_add_header(r, "ETag", etag, id_len + 2);
    if (r->headers_out.etag == NULL) {
        return NGX_HTTP_INTERNAL_SERVER_ERROR;
    }
    if (answer.gzip) {
        h = ngx_http_zp_add_header(r, "Content-Encoding", (u_char *) "gzip", 4);
        if (h == NULL) {
            return NGX_HTTP_INTERNAL_SERVER_ERROR;
        }
        r->headers_out.content_encoding = h;
    }
    if (answer.vary
        && ngx_http_zp_add_header(r, "Vary", (u_char *) "Accept-Encoding",
                                  sizeof("Accept-Encoding") - 1) == NULL)
    {
        return NGX_HTTP_INTERNAL_SERVER_ERROR;
    }

    rc = ngx_http_send_header(r);
    if (rc == NGX_ERROR || rc > NGX_OK || r->header_only) {
        return rc;
    }

    b = ngx_calloc_buf(r->pool);
    if (b == NULL) {
        return NGX_HTTP_INTERNAL_SERVER_ERROR;
    }
    b->pos = answer.data != NULL ? answer.data : (u_char *) answer.fixed;
    b->last = b->pos + answer.len;
    b->memory = 1;
    b->last_buf = (r == r->main) ? 1 : 0;
    b->last_in_chain = 1;
    out.buf = b;
    out.next = NULL;
    return ngx_http_output_filter(r, &out);
}


/* Variables for the access log. */

typedef enum {
    ZP_VAR_BYTES_BEFORE = 0,
    ZP_VAR_BYTES_AFTER,
    ZP_VAR_REQUESTS_BEFORE,
    ZP_VAR_REQUESTS_AFTER,
    ZP_VAR_RESULT
} ngx_http_zp_var_e;

static ngx_int_t
ngx_http_zp_variable(ngx_http_request_t *r, ngx_http_variable_value_t *v, uintptr_t data)
{
    u_char             *p;
    int32_t             value;
    ngx_http_zp_ctx_t  *ctx;

    ctx = ngx_http_get_module_ctx(r, ngx_http_zelvarpack_module);
    if (data == ZP_VAR_RESULT) {
        ngx_str_t  *text = &ngx_http_zp_results[ctx ? ctx->result : ZP_RESULT_NONE];

        v->data = text->data;
        v->len = text->len;
        v->valid = 1;
        v->no_cacheable = 1;
        v->not_found = 0;
        return NGX_OK;
    }
    if (ctx == NULL || ctx->result != ZP_RESULT_OPTIMISED) {
        v->not_found = 1;
        return NGX_OK;
    }
    switch (data) {
    case ZP_VAR_BYTES_BEFORE:
        value = ctx->bytes_before;
        break;
    case ZP_VAR_BYTES_AFTER:
        value = ctx->bytes_after;
        break;
    case ZP_VAR_REQUESTS_BEFORE:
        value = ctx->requests_before;
        break;
    default:
        value = ctx->requests_after;
        break;
    }
    p = ngx_pnalloc(r->pool, NGX_INT32_LEN + 1);
    if (p == NULL) {
        return NGX_ERROR;
    }
    v->len = ngx_sprintf(p, "%D", value) - p;
    v->data = p;
    v->valid = 1;
    v->no_cacheable = 1;
    v->not_found = 0;
    return NGX_OK;
}

static ngx_http_variable_t  ngx_http_zp_vars[] = {
    { ngx_string("zelvarpack_bytes_before"), NULL, ngx_http_zp_variable,
      ZP_VAR_BYTES_BEFORE, NGX_HTTP_VAR_NOCACHEABLE, 0 },
    { ngx_string("zelvarpack_bytes_after"), NULL, ngx_http_zp_variable,
      ZP_VAR_BYTES_AFTER, NGX_HTTP_VAR_NOCACHEABLE, 0 },
    { ngx_string("zelvarpack_requests_before"), NULL, ngx_http_zp_variable,
      ZP_VAR_REQUESTS_BEFORE, NGX_HTTP_VAR_NOCACHEABLE, 0 },
    { ngx_string("zelvarpack_requests_after"), NULL, ngx_http_zp_variable,
      ZP_VAR_REQUESTS_AFTER, NGX_HTTP_VAR_NOCACHEABLE, 0 },
    { ngx_string("zelvarpack_result"), NULL, ngx_http_zp_variable,
      ZP_VAR_RESULT, NGX_HTTP_VAR_NOCACHEABLE, 0 },
      ngx_http_null_variable
};

static ngx_int_t
ngx_http_zp_add_variables(ngx_conf_t *cf)
{
    ngx_http_variable_t  *var, *v;

    for (v = ngx_http_zp_vars; v->name.len; v++) {
        var = ngx_http_add_variable(cf, &v->name, v->flags);
        if (var == NULL) {
            return NGX_ERROR;
        }
        var->get_handler = v->get_handler;
        var->data = v->data;
    }
    return NGX_OK;
}


/* Configuration. */

static void *
ngx_http_zp_create_loc_conf(ngx_conf_t *cf)
{
    ngx_http_zp_loc_conf_t  *conf;

    conf = ngx_pcalloc(cf->pool, sizeof(ngx_http_zp_loc_conf_t));
    if (conf == NULL) {
        return NULL;
    }
    conf->enable = NGX_CONF_UNSET;
    conf->timeout = NGX_CONF_UNSET_MSEC;
    conf->fetch_foreign = NGX_CONF_UNSET;
    conf->keep_comments = NGX_CONF_UNSET;
    conf->max_page = NGX_CONF_UNSET_SIZE;
    conf->handlers = NGX_CONF_UNSET;
    conf->page_memo = NGX_CONF_UNSET_MSEC;
    return conf;
}

static char *
ngx_http_zp_merge_loc_conf(ngx_conf_t *cf, void *parent, void *child)
{
    ngx_http_zp_loc_conf_t  *prev = parent;
    ngx_http_zp_loc_conf_t  *conf = child;
    ngx_path_t              *path;

    ngx_conf_merge_value(conf->enable, prev->enable, 0);
    ngx_conf_merge_str_value(conf->cache, prev->cache, "");
    ngx_conf_merge_msec_value(conf->timeout, prev->timeout, 2000);
    ngx_conf_merge_str_value(conf->handler_path, prev->handler_path, "");
    ngx_conf_merge_str_value(conf->server_address, prev->server_address, "");
    ngx_conf_merge_value(conf->fetch_foreign, prev->fetch_foreign, 0);
    ngx_conf_merge_value(conf->keep_comments, prev->keep_comments, 0);
    ngx_conf_merge_size_value(conf->max_page, prev->max_page, 8 * 1024 * 1024);
    ngx_conf_merge_str_value(conf->thread_pool_name, prev->thread_pool_name, "");
    ngx_conf_merge_value(conf->handlers, prev->handlers, 0);
    /* On by default: without it every request revalidates every resource
     * of its page with the origin, about a hundredth of plain nginx's pace;
     * ten seconds bounds how long a changed resource goes unseen. */
    ngx_conf_merge_msec_value(conf->page_memo, prev->page_memo, 10000);

    if (conf->max_page > 0x7FF00000) {
        ngx_conf_log_error(NGX_LOG_EMERG, cf, 0, "zelvarpack_max_page is larger than 2047m");
        return NGX_CONF_ERROR;
    }

    if ((conf->enable || conf->handlers) && conf->cache.len == 0) {
        ngx_conf_log_error(NGX_LOG_EMERG, cf, 0,
                           "zelvarpack needs a cache folder: zelvarpack_cache PATH");
        return NGX_CONF_ERROR;
    }

    if (conf->cache.len != 0 && conf->cache.data[0] != '/') {
        /* A relative folder is taken from the prefix, as nginx's own paths. */
        if (ngx_conf_full_name(cf->cycle, &conf->cache, 0) != NGX_OK) {
            return NGX_CONF_ERROR;
        }
    }

    if ((conf->enable || conf->handlers) && conf->cache.len != 0) {
        /* Created, and handed to the worker's user, at start like nginx's
         * temporary folders. */
        path = ngx_pcalloc(cf->pool, sizeof(ngx_path_t));
        if (path == NULL) {
            return NGX_CONF_ERROR;
        }
        path->name = conf->cache;
        while (path->name.len > 1 && path->name.data[path->name.len - 1] == '/') {
            path->name.len--;
        }
        /* The folders above it, when missing, are made now. */
        if (path->name.len > 1) {
            u_char  *full;

            full = ngx_pnalloc(cf->pool, path->name.len + 1);
            if (full == NULL) {
                return NGX_CONF_ERROR;
            }
            ngx_memcpy(full, path->name.data, path->name.len);
            full[path->name.len] = '\0';
            if (ngx_create_full_path(full, 0755) != 0 && ngx_errno != NGX_EEXIST) {
                ngx_conf_log_error(NGX_LOG_EMERG, cf, ngx_errno,
                                   "cannot create the folders above \"%V\"", &path->name);
                return NGX_CONF_ERROR;
            }
        }
        path->conf_file = cf->conf_file->file.name.data;
        path->line = cf->conf_file->line;
        if (ngx_add_path(cf, &path) != NGX_OK) {
            return NGX_CONF_ERROR;
        }
    }

    if (conf->enable && conf->thread_pool == NULL) {
        conf->thread_pool = prev->thread_pool;
        if (conf->thread_pool == NULL || conf->thread_pool_name.len != 0) {
            conf->thread_pool = ngx_thread_pool_add(cf, conf->thread_pool_name.len
                                                        ? &conf->thread_pool_name
                                                        : &ngx_http_zp_default_pool);
            if (conf->thread_pool == NULL) {
                return NGX_CONF_ERROR;
            }
        }
    }

    return NGX_CONF_OK;
}

static char *
ngx_http_zp_handlers(ngx_conf_t *cf, ngx_command_t *cmd, void *conf)
{
    ngx_http_zp_loc_conf_t    *zcf = conf;
    ngx_http_core_loc_conf_t  *clcf;

    if (zcf->handlers != NGX_CONF_UNSET) {
        return "is duplicate";
    }
    zcf->handlers = 1;
    clcf = ngx_http_conf_get_module_loc_conf(cf, ngx_http_core_module);
    clcf->handler = ngx_http_zp_handler;
    return NGX_CONF_OK;
}

static ngx_int_t
ngx_http_zp_init(ngx_conf_t *cf)
{
    ngx_http_next_header_filter = ngx_http_top_header_filter;
    ngx_http_top_header_filter = ngx_http_zp_header_filter;

    ngx_http_next_body_filter = ngx_http_top_body_filter;
    ngx_http_top_body_filter = ngx_http_zp_body_filter;

    return NGX_OK;
}

static void
ngx_http_zp_exit_process(ngx_cycle_t *cycle)
{
    /* No download thread may be inside the HTTP library while the process
     * tears it down. */
    zp_stop_background_work(2000);
}
