// A server that says anything at all, in both kinds of conversation, with all guards and
// with none: the first byte chooses, the rest is what arrives. Whatever it is, nothing
// may be read or written outside a buffer, and all request memory must come back.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "context/guards.h"
#include "context/request_setup.h"
#include "properties/vesk_property.h"
#include "proxy/mapping_order.h"
#include "proxy/proxy_lifecycle.h"
#include "proxy/replay.h"

// A length from the wire may ask for gigabytes; the heap of a fuzzer may not.
constexpr std::int32_t kMaxBlock = 1 << 16;

struct Peer {
  const std::uint8_t* bytes;
  std::size_t left;
};

static Peer peer;

static std::int32_t peerRecv(vesk_request* req, std::int32_t /*sock*/, void* buffer,
                             std::int32_t length, veskProxy* /*proxy*/) {
  req->lastError = 0;
  const std::size_t count = std::min(peer.left, static_cast<std::size_t>(length));
  std::memcpy(buffer, peer.bytes, count);
  peer.bytes += count;
  peer.left -= count;
  return static_cast<std::int32_t>(count);
}

static void* boundedMalloc(vesk_request* /*req*/, std::int32_t size) {
  if (size > kMaxBlock) return nullptr;
  return std::malloc(size > 0 ? static_cast<std::size_t>(size) : 1);
}

static void readTexts(vesk_request* /*req*/, const char* name, const char* value) {
  volatile std::size_t length = std::strlen(name) + std::strlen(value);
  (void)length;
}

static void prepare(vesk_request* req) {
  init_vesk_request(req);
  req->uri = "/demo/index.jsp";
  req->malloc = boundedMalloc;
  req->getHeader = [](auto...) -> const char* { return nullptr; };
  req->getRealPath = [](vesk_request* by, const char* uri) {
    return by->strdup(by, uri);
  };
  req->getPostData = [](vesk_request*, char* buffer, std::int32_t length) {
    if (length > 0) std::memset(buffer, 'x', static_cast<std::size_t>(length));
    return std::max(length, 0);
  };
  req->setStatus = [](auto...) {};
  req->addHeader = readTexts;
  req->writeClient = [](auto...) { return 0; };
  req->connect = [](auto...) { return 1; };
  req->closeSocket = [](auto...) {};
  req->send = [](vesk_request* by, std::int32_t, const void*, std::int32_t length) {
    by->lastError = 0;
    return length;
  };
  req->recv = peerRecv;
}

static void converse(vesk_request* req, veskProxy* proxy, bool service) {
  if (service) {
    std::int32_t sequence = 0;
    (void)proxy->handleRequest(req, proxy, nullptr, &sequence);
    return;
  }
  propertyTable* table = proxy->fetchProps(req, proxy, "servlet-mappings", nullptr);
  if (table) (void)sortMappings(req, table);
  freeProperties(req, table);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  peer = {data + 1, size - 1};
  vesk_request request;
  prepare(&request);
  if ((data[0] & 2U) != 0) request.guards = kAllGuards;
  request.method = (data[0] & 4U) != 0 ? "PUT" : "POST";
  request.hasPostData = 1;
  veskProxy* proxy = veskProxyNew(&request);
  if (proxy->initProxy(proxy, &request, "127.0.0.1:1", 0, 1) == 0)
    converse(&request, proxy, (data[0] & 1U) != 0);
  (void)proxy->destroyInetProxy(proxy, &request);
  request.freeAttributes(&request);
  request.freeAttributeNames(&request);
  releaseKeptBlocks(&request);
  endReplay(&request);
  return 0;
}
