#include "support/memory_host.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <set>

static MemoryHost* current;
static std::set<void*>* poolOf;  // blocks that end with the host

constexpr int kBuckets = 5;
constexpr int kInputSize = 64;

static pblock* newBlock() {
  auto* block = new pblock;
  block->hsize = kBuckets;
  block->ht = new pb_entry* [kBuckets] {};
  return block;
}

static int bucketOf(const char* name) {
  return (static_cast<unsigned char>(name[0]) * 7 + static_cast<int>(strlen(name))) %
         kBuckets;
}

static void insert(pblock* block, pb_param* param) {
  pb_entry** place = &block->ht[bucketOf(param->name)];
  while (*place) place = &(*place)->next;
  *place = new pb_entry{param, nullptr};
}

static int freeParam(pb_param* param) {
  if (!param) return 0;
  std::free(param->name);
  std::free(param->value);
  delete param;
  return 1;
}

static pb_param* findParam(const char* name, pblock* block, int remove) {
  for (pb_entry** place = &block->ht[bucketOf(name)]; *place; place = &(*place)->next) {
    pb_entry* entry = *place;
    if (std::strcmp(entry->param->name, name) != 0) continue;
    pb_param* param = entry->param;
    if (!remove) return param;
    *place = entry->next;
    delete entry;
    return param;
  }
  return nullptr;
}

template <class Visit>
static void visit(const pblock* block, Visit each) {
  for (int i = 0; i < block->hsize; ++i) {
    for (const pb_entry* entry = block->ht[i]; entry; entry = entry->next)
      each(entry->param);
  }
}

static void deleteBlock(pblock* block) {
  for (int i = 0; i < block->hsize; ++i)
    while (block->ht[i]) freeParam(findParam(block->ht[i]->param->name, block, 1));
  delete[] block->ht;
  delete block;
}

static pb_param* insertText(const char* name, const char* value, pblock* block) {
  auto* param = new pb_param{::strdup(name), ::strdup(value)};
  insert(block, param);
  return param;
}

static char* findValue(const char* name, pblock* block) {
  const pb_param* param = findParam(name, block, 0);
  return param ? param->value : nullptr;
}

static bool fails() {
  return ++current->allocations == current->failAllocation;
}

static void* poolBlock(int size) {
  EXPECT_GT(size, 0);
  if (fails()) return nullptr;
  void* block = std::malloc(static_cast<std::size_t>(size));
  poolOf->insert(block);
  ++current->poolBlocks;
  return block;
}

static void freePoolBlock(void* block) {
  EXPECT_EQ(poolOf->erase(block), 1u);
  --current->poolBlocks;
  std::free(block);
}

static void* permBlock(int size) {
  EXPECT_GT(size, 0);
  if (fails()) return nullptr;
  ++current->permBlocks;
  return std::malloc(static_cast<std::size_t>(size));
}

static void freePermBlock(void* block) {
  EXPECT_NE(block, nullptr);
  --current->permBlocks;
  std::free(block);
}

template <class Allocate>
static char* copyOf(const char* text, Allocate allocate) {
  const std::size_t size = std::strlen(text) + 1;
  void* block = allocate(static_cast<int>(size));
  return block ? static_cast<char*>(std::memcpy(block, text, size)) : nullptr;
}

static int grab(netbuf* input, int size) {
  if (current->unread.empty()) return current->grabFailure;
  const std::string part = current->unread.front();
  const int count = std::min({size, kInputSize, static_cast<int>(part.size())});
  std::memcpy(input->inbuf, part.data(), static_cast<std::size_t>(count));
  input->pos = 0;
  input->cursize = count;
  current->unread.erase(current->unread.begin());
  return count;
}

static int peerName(SYS_NETFD /*socket*/, sockaddr* address, int* size) {
  EXPECT_EQ(*size, 16);
  if (current->peerPort < 0) return -1;
  auto* client = reinterpret_cast<sockaddr_in*>(address);
  client->sin_port = htons(static_cast<std::uint16_t>(current->peerPort));
  return 0;
}

static int netWrite(SYS_NETFD /*socket*/, const char* buffer, int size) {
  errno = current->writeError;
  if (current->writeError != 0) return -1;
  current->body.append(buffer, static_cast<std::size_t>(size));
  return size;
}

static void recordStatus(Session* /*sn*/, Request* rq, int status, const char* reason) {
  rq->status_num = static_cast<short>(status);
  current->reason = reason ? reason : "";
}

[[gnu::format(printf, 5, 6)]] static int writeLog(int degree, const char* function,
                                                  Session* /*sn*/, Request* /*rq*/,
                                                  const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  (void)std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  current->log.push_back(std::to_string(degree) + "|" + function + "|" + text);
  return 0;
}

static nsapi_dispatch_t table = {
    .f_system_version = [] { return const_cast<char*>("MemoryHost/1.0"); },
    .f_system_malloc = poolBlock,
    .f_system_free = freePoolBlock,
    .f_system_strdup = [](const char* text) { return copyOf(text, poolBlock); },
    .f_system_malloc_perm = permBlock,
    .f_system_free_perm = freePermBlock,
    .f_system_strdup_perm = [](const char* text) { return copyOf(text, permBlock); },
    .f_netbuf_grab = grab,
    .f_crit_init = []() -> CRITICAL { return current; },
    .f_crit_enter = [](CRITICAL /*section*/) {},
    .f_crit_exit = [](CRITICAL /*section*/) {},
    .f_daemon_atrestart = [](void (*fn)(void*), void*) { current->atRestart = fn; },
    .f_net_getpeername = peerName,
    .f_net_write = netWrite,
    .f_param_free = freeParam,
    .f_pblock_findval = findValue,
    .f_pblock_nvinsert = insertText,
    .f_pblock_nninsert =
        [](const char* name, int value, pblock* block) {
          return insertText(name, std::to_string(value).c_str(), block);
        },
    .f_pblock_pblock2str =
        [](pblock* block, char* /*text*/) {
          return copyOf(MemoryHost::all(block).c_str(), poolBlock);
        },
    .f_pblock_fr = findParam,
    .f_session_dns_lookup = [](Session*,
                               int) { return const_cast<char*>(current->dnsName); },
    .f_util_uri_is_evil =
        [](const char* uri) {
          EXPECT_NE(uri, nullptr);
          return current->evilUri ? 1 : 0;
        },
    .f_conf_getglobals = [] { return &current->globals; },
    .f_protocol_start_response =
        [](Session*, Request*) {
          ++current->starts;
          return current->startResult;
        },
    .f_protocol_status = recordStatus,
    .f_log_error = writeLog,
    .f_request_translate_uri =
        [](char*, Session*) { return const_cast<char*>(current->translated); },
};

nsapi_dispatch_t* __nsapi30_table = &table;

MemoryHost::MemoryHost()
    : initBlock(newBlock()),
      vars(newBlock()),
      reqpb(newBlock()),
      headers(newBlock()),
      srvhdrs(newBlock()),
      client(newBlock()) {
  current = this;
  poolOf = new std::set<void*>;
  input.inbuf = new unsigned char[kInputSize];
  session.client = client;
  session.inbuf = &input;
  request.vars = vars;
  request.reqpb = reqpb;
  request.headers = headers;
  request.srvhdrs = srvhdrs;
  globals = {8080, const_cast<char*>("host.example"), 0};
}

MemoryHost::~MemoryHost() {
  EXPECT_EQ(permBlocks, 0);
  for (pblock* block : {initBlock, vars, reqpb, headers, srvhdrs, client})
    deleteBlock(block);
  for (void* block : *poolOf) std::free(block);
  delete poolOf;
  delete[] input.inbuf;
}

void MemoryHost::put(pblock* block, const char* name, const char* value) {
  insertText(name, value, block);
}

std::string MemoryHost::get(const pblock* block, const char* name) {
  std::string values;
  visit(block, [&](const pb_param* param) {
    if (std::strcmp(param->name, name) == 0)
      values.append(values.empty() ? "" : "|").append(param->value);
  });
  return values.empty() ? "-" : values;
}

std::string MemoryHost::all(const pblock* block) {
  std::string text;
  visit(block, [&](const pb_param* param) {
    text.append(text.empty() ? "" : " ").append(param->name);
    text.append("=\"").append(param->value).append("\"");
  });
  return text;
}

int MemoryHost::logged(const std::string& part) const {
  return static_cast<int>(std::count_if(log.begin(), log.end(), [&](const auto& line) {
    return line.find(part) != std::string::npos;
  }));
}

std::string MemoryHost::lines() const {
  std::string text;
  for (const std::string& line : log) text += line + "\n";
  return text;
}
