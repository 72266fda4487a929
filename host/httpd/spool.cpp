#include "httpd/spool.h"

#include <apr_file_io.h>
#include <apr_strings.h>
#include <http_log.h>
#include <http_protocol.h>

#include "httpd/mod_nsapi.h"

APLOG_USE_MODULE(nsapi);

// The macros of APR's rings, which brigades are, cast a volatile away.
#pragma GCC diagnostic ignored "-Wcast-qual"

namespace host {

constexpr apr_off_t kPiece = 64 << 10;     // of one read
constexpr apr_off_t kInMemory = 64 << 10;  // what is beyond goes to a file

struct Spool {
  request_rec* r;
  apr_bucket_brigade* body;  // the first bytes
  apr_file_t* file;          // those behind them; null: none
  apr_off_t size;            // of all
  apr_off_t inFile;
  bool ended;
};

bool isBodyFiltered(const request_rec* r) {
  return r->input_filters != r->proto_input_filters;
}

static apr_status_t openFile(Spool* spool) {
  const char* folder = nullptr;
  apr_pool_t* pool = spool->r->pool;
  apr_status_t status = apr_temp_dir_get(&folder, pool);
  if (status != APR_SUCCESS) return status;
  char* name = apr_pstrcat(pool, folder, "/nsapi.XXXXXX", nullptr);
  status = apr_file_mktemp(&spool->file, name,
                           APR_FOPEN_CREATE | APR_FOPEN_READ | APR_FOPEN_WRITE |
                               APR_FOPEN_EXCL | APR_FOPEN_BINARY,
                           pool);
  return status == APR_SUCCESS ? apr_file_remove(name, pool) : status;
}

static apr_status_t keep(Spool* spool, const char* bytes, apr_size_t size) {
  spool->size += static_cast<apr_off_t>(size);
  if (!spool->file && spool->size <= kInMemory)
    return apr_brigade_write(spool->body, nullptr, nullptr, bytes, size);
  const apr_status_t status = spool->file ? APR_SUCCESS : openFile(spool);
  if (status != APR_SUCCESS) return status;
  spool->inFile += static_cast<apr_off_t>(size);
  return apr_file_write_full(spool->file, bytes, size, nullptr);
}

// Most bodies that can't be read are the browser's own fault.
static int refuse(const Spool& spool, apr_status_t reason, int status) {
  const int level = ap_is_HTTP_SERVER_ERROR(status) ? APLOG_ERR : APLOG_WARNING;
  ap_log_rerror(APLOG_MARK, level, reason, spool.r,
                "the body can't be fetched through the input filters");
  return status;
}

static int keepBucket(Spool* spool, apr_bucket* bucket) {
  const char* bytes = nullptr;
  apr_size_t size = 0;
  if (AP_BUCKET_IS_ERROR(bucket)) return refuse(*spool, APR_EGENERAL, HTTP_BAD_REQUEST);
  if (APR_BUCKET_IS_EOS(bucket)) spool->ended = true;
  if (APR_BUCKET_IS_METADATA(bucket)) return OK;
  apr_status_t status = apr_bucket_read(bucket, &bytes, &size, APR_BLOCK_READ);
  if (status != APR_SUCCESS) return refuse(*spool, status, HTTP_BAD_REQUEST);
  status = keep(spool, bytes, size);
  return status == APR_SUCCESS ? OK : refuse(*spool, status, HTTP_INTERNAL_SERVER_ERROR);
}

static void dropBucket(apr_bucket* bucket) {
  apr_bucket_delete(bucket);
}

static int keepPiece(Spool* spool, apr_bucket_brigade* piece) {
  int result = OK;
  while (result == OK && !spool->ended && !APR_BRIGADE_EMPTY(piece)) {
    apr_bucket* first = APR_BRIGADE_FIRST(piece);
    result = keepBucket(spool, first);
    dropBucket(first);
  }
  return result;
}

// A read that waits gives something: nothing at all is a filter that has lost its way.
static int fetchPiece(Spool* spool, apr_bucket_brigade* piece) {
  const apr_status_t status = ap_get_brigade(spool->r->input_filters, piece,
                                             AP_MODE_READBYTES, APR_BLOCK_READ, kPiece);
  if (status != APR_SUCCESS)
    return refuse(*spool, status, ap_map_http_request_error(status, HTTP_BAD_REQUEST));
  if (APR_BRIGADE_EMPTY(piece)) return refuse(*spool, APR_EOF, HTTP_BAD_REQUEST);
  return keepPiece(spool, piece);
}

// A filter that has left with its first read has found nothing to change.
static int fetchAll(Spool* spool) {
  request_rec* r = spool->r;
  apr_bucket_brigade* piece = apr_brigade_create(r->pool, r->connection->bucket_alloc);
  int result = fetchPiece(spool, piece);
  while (result == OK && !spool->ended && isBodyFiltered(r)) {
    result = fetchPiece(spool, piece);
  }
  apr_brigade_destroy(piece);
  return result;
}

static bool tellsBody(request_rec* r) {
  return apr_table_get(r->headers_in, "Content-Length") ||
         apr_table_get(r->headers_in, "Transfer-Encoding");
}

int spoolBody(request_rec* r, apr_bucket_brigade* body) {
  Spool spool{r, body, nullptr, 0, 0, false};
  const bool told = tellsBody(r);
  const int result = fetchAll(&spool);
  if (result != OK) return result;
  if (spool.file) {
    apr_brigade_insert_file(body, spool.file, 0, spool.inFile, r->pool);
  }
  if (!spool.ended) return OK;
  APR_BRIGADE_INSERT_TAIL(body, apr_bucket_eos_create(r->connection->bucket_alloc));
  if (!told && spool.size == 0) return OK;
  apr_table_unset(r->headers_in, "Transfer-Encoding");
  apr_table_setn(r->headers_in, "Content-Length", apr_off_t_toa(r->pool, spool.size));
  return OK;
}

}  // namespace host
