#include "nsapi/response_mark.h"

#include <nsapi.h>

#include "context/memory.h"
#include "nsapi/host_objects.h"

static std::int64_t countParameters(const pblock* block) {
  BlockWalk walk{block, 0, nullptr};
  std::int64_t count = 0;
  while (nextParameter(&walk)) ++count;
  return count;
}

static void releaseTexts(vesk_request* req) {
  const char**& texts = req->responseMark.texts;
  for (const char** text = texts; text && *text; ++text)
    req->free(req, const_cast<char*>(*text));
  if (texts) req->free(req, static_cast<void*>(texts));
  texts = nullptr;
}

// False when memory runs out; what was copied by then stands in order, so that it can be
// released as a list of its own length.
static bool copyParameters(vesk_request* req, const pblock* block, const char** texts) {
  BlockWalk walk{block, 0, nullptr};
  while (const pb_param* param = nextParameter(&walk)) {
    for (const char* text : {param->name, param->value}) {
      *texts = req->strdup(req, text);
      if (!*texts++) return false;
    }
  }
  return true;
}

// Copies, because an attempt may replace what the host holds. Most often there is nothing
// to copy.
static bool markHeaders(vesk_request* req, const pblock* headers) {
  const std::int64_t count = countParameters(headers);
  if (count == 0) return true;
  const char** texts = newTextArray(req, 2 * count);
  if (!texts) return false;
  req->responseMark.texts = texts;
  return copyParameters(req, headers, texts);
}

void markResponse(vesk_request* req) {
  const Request* rq = requestOf(req);
  req->responseMark = {.made = 1, .status = rq->status_num, .texts = nullptr};
  if (markHeaders(req, rq->srvhdrs)) return;
  // All or none: half of what belongs together may say the opposite.
  releaseTexts(req);
  req->log(req, "no memory to keep headers of the response for another attempt");
}

// By the host's own functions, for the memory is the host's. A host that can't find what
// its own block lists ends the walk, where it could go on for ever.
static void dropAll(pblock* block) {
  for (;;) {
    BlockWalk walk{block, 0, nullptr};
    const pb_param* first = nextParameter(&walk);
    pb_param* removed = first ? pblock_remove(first->name, block) : nullptr;
    if (!removed) return;
    (void)param_free(removed);
  }
}

// All go, also those that stood there before: whether the attempt has changed one can't
// be seen from its name.
static void restoreHeaders(vesk_request* req, pblock* headers) {
  dropAll(headers);
  const char** text = req->responseMark.texts;
  for (; text && *text; text += 2) {
    if (!pblock_nvinsert(text[0], text[1], headers))
      req->log(req, "no memory to bring back the header %.80s", text[0]);
  }
}

void restoreResponse(vesk_request* req) {
  Request* rq = requestOf(req);
  const std::int32_t status = req->responseMark.status;
  if (!req->responseMark.made) return;
  // No status can't be recorded, and is no status to a host. A host that keeps the reason
  // among the headers gets it back with them, hence the order.
  if (status == 0) rq->status_num = 0;
  if (status != 0) protocol_status(sessionOf(req), rq, status, nullptr);
  restoreHeaders(req, rq->srvhdrs);
}

void releaseResponseMark(vesk_request* req) {
  releaseTexts(req);
  req->responseMark.made = 0;
}
