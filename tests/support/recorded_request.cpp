#include "support/recorded_request.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "context/request_setup.h"

static RecordedRequest* fixtureOf(vesk_request* req) {
  return static_cast<RecordedRequest*>(req->rq);
}

[[gnu::format(printf, 1, 0)]] static std::string formatted(const char* format,
                                                           va_list args) {
  char* made = nullptr;
  EXPECT_GE(vasprintf(&made, format, args), 0);
  std::string text = made;
  std::free(made);
  return text;
}

[[gnu::format(printf, 2, 3)]] static void recordLog(vesk_request* req, const char* format,
                                                    ...) {
  va_list args;
  va_start(args, format);
  fixtureOf(req)->logLines.push_back(formatted(format, args));
  va_end(args);
}

[[gnu::format(printf, 2, 3)]] static void recordTrace(vesk_request* req,
                                                      const char* format, ...) {
  va_list args;
  va_start(args, format);
  fixtureOf(req)->traceLines.push_back(formatted(format, args));
  va_end(args);
}

[[gnu::format(printf, 3, 4)]] static void recordTraceE(vesk_request* req,
                                                       std::uint64_t /*flags*/,
                                                       const char* format, ...) {
  va_list args;
  va_start(args, format);
  fixtureOf(req)->traceELines.push_back(formatted(format, args));
  va_end(args);
}

static void* countedBlock(vesk_request* req, std::int32_t size, std::int64_t* blocks) {
  RecordedRequest* fixture = fixtureOf(req);
  if (++fixture->allocations == fixture->failAllocation) return nullptr;
  void* block = std::malloc(size > 0 ? static_cast<std::size_t>(size) : 1);
  if (block) ++*blocks;
  return block;
}

static char* countedCopy(vesk_request* req, const char* text, std::int64_t* blocks) {
  if (!text) return nullptr;
  const std::size_t size = std::strlen(text) + 1;
  void* block = countedBlock(req, static_cast<std::int32_t>(size), blocks);
  return block ? static_cast<char*>(std::memcpy(block, text, size)) : nullptr;
}

static void countedRelease(void* block, std::int64_t* blocks) {
  if (!block) {
    ADD_FAILURE() << "a null block was released";
    return;
  }
  --*blocks;
  std::free(block);
}

static void* testMalloc(vesk_request* req, std::int32_t size) {
  return countedBlock(req, size, &fixtureOf(req)->requestBlocks);
}
static char* testStrdup(vesk_request* req, const char* text) {
  return countedCopy(req, text, &fixtureOf(req)->requestBlocks);
}
static void testFree(vesk_request* req, void* block) {
  countedRelease(block, &fixtureOf(req)->requestBlocks);
}
static void* testPermMalloc(vesk_request* req, std::int32_t size) {
  return countedBlock(req, size, &fixtureOf(req)->permBlocks);
}
static char* testPermStrdup(vesk_request* req, const char* text) {
  return countedCopy(req, text, &fixtureOf(req)->permBlocks);
}
static void testPermFree(vesk_request* req, void* block) {
  countedRelease(block, &fixtureOf(req)->permBlocks);
}

static const char* testGetHeader(vesk_request* req, const char* name) {
  RecordedRequest* fixture = fixtureOf(req);
  const auto found = fixture->variables.find(name);
  return found == fixture->variables.end() ? nullptr : found->second.c_str();
}

static char* testGetRealPath(vesk_request* req, const char* uri) {
  RecordedRequest* fixture = fixtureOf(req);
  const auto found = fixture->realPaths.find(uri);
  if (found == fixture->realPaths.end()) return nullptr;
  return req->strdup(req, found->second.c_str());
}

static std::int32_t testGetPostData(vesk_request* req, char* buffer,
                                    std::int32_t length) {
  RecordedRequest* fixture = fixtureOf(req);
  if (length <= 0 || !req->hasPostData) return 0;
  const std::size_t count =
      std::min(fixture->postData.size(), static_cast<std::size_t>(length));
  if (count == 0 && fixture->postBreaks) {
    req->hasPostData = 0;
    return -1;
  }
  std::memcpy(buffer, fixture->postData.data(), count);
  fixture->postData.erase(0, count);
  return static_cast<std::int32_t>(count);
}

static void testSetStatus(vesk_request* req, std::int32_t status, const char* reason) {
  fixtureOf(req)->status = status;
  fixtureOf(req)->reason = reason;
}

static void testAddHeader(vesk_request* req, const char* name, const char* value) {
  fixtureOf(req)->responseHeaders.emplace_back(name, value);
}

static std::int32_t testWriteClient(vesk_request* req, const char* buffer,
                                    std::int32_t length) {
  RecordedRequest* fixture = fixtureOf(req);
  ++fixture->writes;
  if (fixture->writesToFail > 0) {
    --fixture->writesToFail;
    ++req->clientWriteFailures;
    req->lastError = EPIPE;
    return -1;
  }
  if (length > 0) fixture->body.append(buffer, static_cast<std::size_t>(length));
  req->clientWriteFailures = 0;
  return 0;
}

RecordedRequest::RecordedRequest() {
  init_vesk_request(req);
  req->rq = this;
  req->getHeader = testGetHeader;
  req->getRealPath = testGetRealPath;
  req->getPostData = testGetPostData;
  req->setStatus = testSetStatus;
  req->addHeader = testAddHeader;
  req->writeClient = testWriteClient;
  req->malloc = testMalloc;
  req->strdup = testStrdup;
  req->free = testFree;
  req->permMalloc = testPermMalloc;
  req->permFree = testPermFree;
  req->permStrdup = testPermStrdup;
  req->log = recordLog;
  req->trace = recordTrace;
  req->traceE = recordTraceE;
  req->uri = "/demo/index.jsp";
}

static int countLines(const std::vector<std::string>& lines, const std::string& part) {
  return static_cast<int>(std::count_if(
      lines.begin(), lines.end(),
      [&part](const std::string& line) { return line.find(part) != std::string::npos; }));
}

int RecordedRequest::logged(const std::string& part) const {
  return countLines(logLines, part);
}

int RecordedRequest::traced(const std::string& part) const {
  return countLines(traceLines, part);
}

int RecordedRequest::tracedE(const std::string& part) const {
  return countLines(traceELines, part);
}

std::string RecordedRequest::all() const {
  std::string text;
  for (const std::string& line : logLines) text += "log: " + line + "\n";
  for (const std::string& line : traceLines) text += "trace: " + line + "\n";
  for (const std::string& line : traceELines) text += "traceE: " + line + "\n";
  return text;
}
