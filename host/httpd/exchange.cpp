#include "httpd/exchange.h"

#include <apr_strings.h>
#include <http_core.h>
#include <http_protocol.h>
#include <http_request.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "httpd/error_pages.h"
#include "httpd/log.h"
#include "httpd/response.h"
#include "httpd/spool.h"
#include "httpd/tls.h"
#include "layer/outcome.h"
#include "layer/status.h"

// The macros of APR's rings, which brigades are, cast a volatile away.
#pragma GCC diagnostic ignored "-Wcast-qual"

namespace host {

// Bytes that a socket takes at once, or has no room for because its browser doesn't read.
constexpr int kSmallPiece = 16 << 10;

// Half of what httpd reads from a socket at once.
constexpr int kMuch = APR_BUCKET_BUFF_SIZE / 2;

static thread_local bool translating = false;

bool isTranslating() {
  return translating;
}

// A sub-request has no body: the one that waits is its parent's.
HttpdExchange::HttpdExchange(request_rec* r)
    : r_(r),
      body_(nullptr),
      out_(nullptr),
      left_(-1),
      bodyState_(r->main ? BodyState::ended : BodyState::open),
      ended_(false),
      refusal_(0),
      settings_{ap_get_server_port(r), apr_pstrdup(r->pool, ap_get_server_name(r)),
                isSecure(r)} {}

// Reads into an empty brigade: false when nothing came, as when the body breaks off or
// nothing is there to take without a wait. A body longer than LimitRequestBody ends the
// request, whatever the plug-in makes of it; so does a part of one that has no length,
// since a server would take it for all.
bool HttpdExchange::fetchBody(int size, apr_read_type_e wait) {
  if (!body_) body_ = apr_brigade_create(r_->pool, r_->connection->bucket_alloc);
  apr_status_t status =
      ap_get_brigade(r_->input_filters, body_, AP_MODE_READBYTES, wait, size);
  const bool mayBeEmpty = wait == APR_NONBLOCK_READ;
  if (mayBeEmpty && APR_STATUS_IS_EAGAIN(status)) return false;
  if (status == APR_SUCCESS) return !mayBeEmpty || !APR_BRIGADE_EMPTY(body_);
  bodyState_ = BodyState::broken;
  const int refused = ap_map_http_request_error(status, HTTP_BAD_REQUEST);
  const bool hasLength = apr_table_get(r_->headers_in, "Content-Length") != nullptr;
  if (!hasLength || refused == HTTP_REQUEST_ENTITY_TOO_LARGE) refusal_ = refused;
  return false;
}

// What the first bucket gives: a count; 0 when it holds no bytes; -1 at the end
// of the body; -2 when it can't be read. The bucket is gone afterwards.
constexpr int kEndOfBody = -1;
constexpr int kBrokenBody = -2;

int HttpdExchange::takeBytes(unsigned char* buffer, int size) {
  apr_bucket* bucket = APR_BRIGADE_FIRST(body_);
  const char* bytes = nullptr;
  apr_size_t count = 0;
  if (APR_BUCKET_IS_EOS(bucket)) return kEndOfBody;
  if (AP_BUCKET_IS_ERROR(bucket)) return kBrokenBody;
  if (!APR_BUCKET_IS_METADATA(bucket) &&
      apr_bucket_read(bucket, &bytes, &count, APR_BLOCK_READ) != APR_SUCCESS) {
    return kBrokenBody;
  }
  auto room = static_cast<apr_size_t>(size);
  if (count > room && apr_bucket_split(bucket, room) != APR_SUCCESS) return kBrokenBody;
  count = std::min(count, room);
  if (count > 0) std::memcpy(buffer, bytes, count);
  apr_bucket_delete(bucket);
  return static_cast<int>(count);
}

int HttpdExchange::readPiece(unsigned char* buffer, int size, apr_read_type_e wait) {
  int count = 0;
  while (bodyState_ == BodyState::open && count == 0) {
    bool empty = !body_ || APR_BRIGADE_EMPTY(body_);
    if (empty && !fetchBody(size, wait)) break;
    count = APR_BRIGADE_EMPTY(body_) ? kEndOfBody : takeBytes(buffer, size);
    if (count == kEndOfBody) bodyState_ = BodyState::ended;
    if (count == kBrokenBody) bodyState_ = BodyState::broken;
  }
  return std::max(count, 0);
}

// Each answer of this costs a question of the server. httpd reads little at a time, so
// while much comes, what has come besides is taken along.
int HttpdExchange::readBody(unsigned char* buffer, int size) {
  int last = readPiece(buffer, size, APR_BLOCK_READ);
  int count = last;
  while (last >= kMuch && count < size) {
    last = readPiece(buffer + count, size - count, APR_NONBLOCK_READ);
    count += last;
  }
  return count == 0 && bodyState_ == BodyState::broken ? -1 : count;
}

int HttpdExchange::settleBody() {
  if (bodyState_ != BodyState::open || !isBodyFiltered(r_)) return OK;
  body_ = apr_brigade_create(r_->pool, r_->connection->bucket_alloc);
  const int status = spoolBody(r_, body_);
  if (status != OK) bodyState_ = BodyState::broken;
  return status;
}

int HttpdExchange::startResponse(HostRequest* request) {
  // The head must not go out: the refusal takes its place.
  if (refusal_ != 0 || r_->connection->aborted) return REQ_ABORTED;
  if (httpdAnswers(r_, *request)) {
    // What the plug-in sends of its page is read to its end, and goes nowhere. Nor does
    // the server's reason, which httpd would write into its page as it stands.
    putErrorHead(r_, request);
    r_->status_line = nullptr;
    refusal_ = request->status_num;
    left_ = 0;
    return REQ_NOACTION;
  }
  left_ = putHead(r_, request);
  if (r_->header_only || isHeadOnly(r_->status)) {
    left_ = 0;
    return REQ_NOACTION;
  }
  if (announcesClose(outcomeOf(*request), left_ >= 0)) closeBehind(r_);
  return REQ_PROCEED;
}

bool HttpdExchange::pass() {
  apr_status_t status = ap_pass_brigade(r_->output_filters, out_);
  apr_brigade_cleanup(out_);
  if (status == APR_SUCCESS && !r_->connection->aborted) return true;
  errno = APR_STATUS_IS_ECONNRESET(status)  ? ECONNRESET
          : APR_STATUS_IS_TIMEUP(status)    ? ETIMEDOUT
          : APR_STATUS_IS_ETIMEDOUT(status) ? ETIMEDOUT
                                            : EPIPE;
  return false;
}

// Has a response that is complete leave before httpd looks for the next request, which
// then is often there already: the worker goes on with it, where it would give the
// connection back and be woken again. On a busy machine the one who has to ask waits for
// a processor, hence the yield; on any other it costs one call. On the connection's
// filters, behind the end, since a filter that packs would put a mark of its own into the
// response. What waits must be small, since this write blocks. A stream of HTTP/2
// leaves by its connection's own rules, and a part of a page with that page.
void HttpdExchange::sendAway() {
  conn_rec* connection = r_->connection;
  if (r_->main || connection->master || connection->aborted) return;
  APR_BRIGADE_INSERT_TAIL(out_, apr_bucket_flush_create(connection->bucket_alloc));
  (void)ap_pass_brigade(connection->output_filters, out_);
  apr_brigade_cleanup(out_);
  if (connection->keepalive != AP_CONN_CLOSE) (void)sched_yield();
}

// Bytes behind a known length are dropped: they would be taken for the next
// response.
int HttpdExchange::writeBody(const char* bytes, int size) {
  auto count = static_cast<std::int64_t>(size);
  if (left_ >= 0) count = std::min(count, left_);
  if (ended_ || count == 0) return size;
  apr_bucket_alloc_t* buckets = r_->connection->bucket_alloc;
  if (!out_) out_ = apr_brigade_create(r_->pool, buckets);
  apr_bucket* block =
      apr_bucket_transient_create(bytes, static_cast<apr_size_t>(count), buckets);
  APR_BRIGADE_INSERT_TAIL(out_, block);
  if (left_ >= 0) left_ -= count;
  ended_ = left_ == 0;
  apr_bucket* next =
      ended_ ? apr_bucket_eos_create(buckets) : apr_bucket_flush_create(buckets);
  APR_BRIGADE_INSERT_TAIL(out_, next);
  if (!pass()) return -1;
  if (ended_ && size <= kSmallPiece) sendAway();
  return size;
}

std::int64_t HttpdExchange::missing() const {
  return left_;
}

// Keeps the page, and those around it, out of every cache.
static void forbidStoring(request_rec* r) {
  for (; r; r = r->main) r->no_cache = 1;
}

// The filters of a protocol know this bucket as the end of a gateway that broke off: no
// last chunk, or a stream that is reset. A filter that packs the body passes it on behind
// what looks like a good end. Of a part of a page it breaks the whole.
void HttpdExchange::putBreak() {
  r_->connection->keepalive = AP_CONN_CLOSE;
  apr_bucket* broken = ap_bucket_error_create(HTTP_BAD_GATEWAY, nullptr, r_->pool,
                                              r_->connection->bucket_alloc);
  APR_BRIGADE_INSERT_TAIL(out_, broken);
}

// Of an end that nobody knows, a browser may make what it can; to a cache it would be
// the whole page for all who come later.
void HttpdExchange::finish(Answer answer) {
  if (answer != Answer::whole) closeBehind(r_);
  if (ended_) return;
  ended_ = true;
  if (answer != Answer::whole) forbidStoring(r_);
  apr_bucket_alloc_t* buckets = r_->connection->bucket_alloc;
  if (!out_) out_ = apr_brigade_create(r_->pool, buckets);
  if (answer == Answer::broken) putBreak();
  APR_BRIGADE_INSERT_TAIL(out_, apr_bucket_eos_create(buckets));
  // A client that has gone is told of in httpd's own log.
  if (pass()) sendAway();
}

// The port tells log lines apart, so it is the one of the connection, whatever
// a proxy in front of httpd says about the client.
bool HttpdExchange::peer(sockaddr_in* address) {
  const apr_sockaddr_t* client = r_->connection->client_addr;
  *address = sockaddr_in{};
  address->sin_family = AF_INET;
  address->sin_port = htons(client->port);
  if (client->family == APR_INET) {
    address->sin_addr = client->sa.sin.sin_addr;
    return true;
  }
  const in6_addr& wide = client->sa.sin6.sin6_addr;
  if (client->family != APR_INET6 || !IN6_IS_ADDR_V4MAPPED(&wide)) return false;
  std::memcpy(&address->sin_addr, &wide.s6_addr[12], sizeof(address->sin_addr));
  return true;
}

// HostnameLookups decides whether a name server is asked.
char* HttpdExchange::clientName() {
  const char* name = ap_get_useragent_host(r_, REMOTE_NAME, nullptr);
  return name ? apr_pstrdup(r_->pool, name) : nullptr;
}

// A URI of the API is decoded already; httpd decodes the one it is given.
static char* lookUpPath(request_rec* r, apr_pool_t* pool, const char* uri) {
  translating = true;
  request_rec* sub = ap_sub_req_lookup_uri(ap_os_escape_path(pool, uri, 1), r, nullptr);
  translating = false;
  const char* path = sub->filename;
  char* found = nullptr;
  if (path && *path == '/') {
    found = requestText(apr_pstrcat(pool, path, sub->path_info, nullptr));
  }
  ap_destroy_sub_req(sub);
  return found;
}

char* HttpdExchange::translateUri(const char* uri, Session*) {
  apr_pool_t* pool = nullptr;
  if (*uri != '/' || apr_pool_create(&pool, r_->pool) != APR_SUCCESS) return nullptr;
  char* path = lookUpPath(r_, pool, uri);
  apr_pool_destroy(pool);
  return path;
}

conf_global_vars_s* HttpdExchange::settings() {
  return &settings_;
}

void HttpdExchange::log(int degree, const char* function, HostRequest*,
                        const char* message) {
  logLine(r_, degree, function, message);
}

}  // namespace host
