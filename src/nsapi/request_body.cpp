#include "nsapi/request_body.h"

#include <nsapi.h>

#include <cstring>

#include "nsapi/host_objects.h"

// Reads from the client: the bytes that are then at hand, or -1. The end and a failure
// are the same here: who asks for bytes knows that some are missing. It is told once,
// and from then on there is nothing to read.
static std::int32_t readMore(vesk_request* req, netbuf* input, std::int32_t length) {
  const std::int32_t result = netbuf_grab(input, length);
  if (result <= 0) {
    req->log(req, "getPostData: Premature read abort on post data");
    req->hasPostData = 0;
    return -1;
  }
  req->trace(req, "   Read %d bytes of post data", result);
  // No more than the buffer says that it holds, whatever the host counts.
  const std::int32_t held = input->cursize - input->pos;
  return result < held ? result : held;
}

std::int32_t getPostData(vesk_request* req, char* buffer, std::int32_t length) {
  netbuf* input = sessionOf(req)->inbuf;
  if (length <= 0 || !req->hasPostData || !input) return 0;

  // What came along with the headers lies in the buffer. Only an empty one is filled,
  // for a read may start it anew.
  std::int32_t available = input->cursize - input->pos;
  if (available != 0)
    req->trace(req, "   inbuf has %d bytes ready", available);
  else
    available = readMore(req, input, length);
  if (available < 1) return available;

  const std::int32_t count = available < length ? available : length;
  std::memcpy(buffer, input->inbuf + input->pos, static_cast<std::size_t>(count));
  input->pos += count;
  return count;
}
