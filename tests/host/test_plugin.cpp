// A plug-in for the tests of the host: small functions that each use one part of
// the interface in the way that a request's query asks for.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "nsapi.h"

namespace {

const char* query(Request* rq) {
  const char* text = pblock_findval("query", rq->reqpb);
  return text ? text : "";
}

bool write(Session* sn, const char* bytes, int size) {
  return net_write(sn->csd, bytes, size) == size;
}

int writeText(Session* sn, const char* text) {
  return write(sn, text, static_cast<int>(std::strlen(text))) ? REQ_PROCEED : REQ_ABORTED;
}

// Starts the response. False when the host asks for no body.
bool start(Session* sn, Request* rq, int status = 200, const char* reason = nullptr) {
  protocol_status(sn, rq, status, reason);
  return protocol_start_response(sn, rq) == REQ_PROCEED;
}

// Sends the body back block by block, as it comes.
int echo(Session* sn, Request* rq) {
  if (!start(sn, rq)) return REQ_PROCEED;
  int count;
  while ((count = netbuf_grab(sn->inbuf, 8192)) > 0) {
    if (!write(sn, reinterpret_cast<char*>(sn->inbuf->inbuf), count)) return REQ_ABORTED;
  }
  if (count < 0) (void)log_error(LOG_WARN, "echo", sn, rq, "body broke off");
  return count < 0 ? REQ_ABORTED : REQ_PROCEED;
}

void writeBlock(Session* sn, const char* title, pblock* block) {
  (void)writeText(sn, title);
  for (int bucket = 0; bucket < block->hsize; ++bucket) {
    for (pb_entry* e = block->ht[bucket]; e; e = e->next) {
      char line[512];
      (void)std::snprintf(line, sizeof(line), "%s=%s\n", e->param->name, e->param->value);
      (void)writeText(sn, line);
    }
  }
}

// Tells all that the host says about the request, in its order. Another path is
// translated first, which must leave no trace.
int tell(Session* sn, Request* rq) {
  char other[] = "/other/";
  const char* translated = request_translate_uri(other, sn);
  if (!start(sn, rq)) return REQ_PROCEED;
  writeBlock(sn, "", rq->reqpb);
  writeBlock(sn, "[headers]\n", rq->headers);
  writeBlock(sn, "[vars]\n", rq->vars);
  writeBlock(sn, "[client]\n", sn->client);
  sockaddr address;
  int size = sizeof(address);
  char line[512];
  (void)std::snprintf(line, sizeof(line), "[server]\nname=%s\npeer=%d\nother=%s\n",
                      conf_getglobals()->Vserver_hostname,
                      net_getpeername(sn->csd, &address, &size), translated);
  return writeText(sn, line);
}

// "status reason": answers with that status and two cookies.
int status(Session* sn, Request* rq) {
  char* reason = nullptr;
  long number = std::strtol(query(rq), &reason, 10);
  pblock_nvinsert("set-cookie", "a=1", rq->srvhdrs);
  pblock_nvinsert("set-cookie", "b=2", rq->srvhdrs);
  pblock_nvinsert("X-Split", "a\r\nX-Injected: 1", rq->srvhdrs);
  if (start(sn, rq, static_cast<int>(number), *reason ? reason + 1 : nullptr)) {
    (void)writeText(sn, "body");
  }
  return number >= 400 ? REQ_ABORTED : REQ_PROCEED;
}

// Announces as many bytes as the query tells, and sends ten.
int length(Session* sn, Request* rq) {
  pblock_nninsert("content-length", std::atoi(query(rq)), rq->srvhdrs);
  return start(sn, rq) ? writeText(sn, "0123456789") : REQ_PROCEED;
}

int abortBefore(Session* sn, Request* rq) {
  if (*query(rq)) protocol_status(sn, rq, std::atoi(query(rq)), "Gone <fishing>");
  return REQ_ABORTED;
}

int abortAfter(Session* sn, Request* rq) {
  if (start(sn, rq)) (void)writeText(sn, "half");
  return REQ_ABORTED;
}

int startOnly(Session* sn, Request* rq) {
  (void)start(sn, rq);
  return REQ_PROCEED;
}

struct Page {
  const char* path;
  int (*serve)(Session*, Request*);
};

const Page kPages[] = {{"/t/echo", echo},         {"/t/tell", tell},
                       {"/t/status", status},     {"/t/length", length},
                       {"/t/abort", abortBefore}, {"/t/half", abortAfter},
                       {"/t/start", startOnly}};

void ended(void* data) {
  (void)log_error(LOG_INFORM, "test_init", nullptr, nullptr, "ended %s 100%%",
                  static_cast<char*>(data));
}

}  // namespace

extern "C" {
NSAPI_PUBLIC int test_init(pblock* pb, Session*, Request*) {
  char* name = pblock_findval("name", pb);
  if (!name) {
    pblock_nvinsert("error", "test-init needs a name", pb);
    return REQ_ABORTED;
  }
  daemon_atrestart(ended, name);
  return REQ_PROCEED;
}

NSAPI_PUBLIC int test_type(pblock*, Session*, Request* rq) {
  const char* uri = pblock_findval("uri", rq->reqpb);
  if (std::strncmp(uri, "/t/", 3) == 0) {
    pblock_nvinsert("content-type", "vesk-internal/target", rq->srvhdrs);
  }
  return REQ_NOACTION;
}

NSAPI_PUBLIC int test_service(pblock*, Session* sn, Request* rq) {
  param_free(pblock_remove("content-type", rq->srvhdrs));
  const char* uri = pblock_findval("uri", rq->reqpb);
  for (const Page& page : kPages) {
    if (std::strcmp(page.path, uri) == 0) return page.serve(sn, rq);
  }
  return REQ_NOACTION;
}
}
