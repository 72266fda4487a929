// The pages that read the request body.

#include <nlohmann/json.hpp>

#include "backend/pages/digest.h"
#include "backend/pages/multipart.h"
#include "backend/pages/reply.h"
#include "backend/pages/request_body.h"
#include "backend/text.h"

namespace backend {

static void putEchoHead(const PageCall& call, const BodyPlan& plan) {
  const std::string_view* type = headerOf(call.request, "content-type");
  const bool usable = type && !type->empty() && isHeaderSafe(*type);
  putHead(call, {200, usable ? *type : "application/octet-stream", plan.length});
}

// echo: the request body comes back, with its type and its length if it has
// one. The head waits for the first block, so that a body that never comes gets
// an answer of its own. One that breaks off later ends the reply short: the
// browser is gone, and this connection is as good as before.
void showEcho(const PageCall& call) {
  const BodyPlan plan = planOf(call);
  std::int64_t total = 0;
  bool started = false;
  const bool whole = readBody(call, plan, total, [&](std::string_view block) {
    if (!started) putEchoHead(call, plan);
    started = true;
    putBlock(call, block);
  });
  if (!whole) {
    const BadRequest error = brokenBody(call, total);
    if (!started) throw error;
  }
  if (!started) putEchoHead(call, plan);
  call.exchange.finish();
}

static void sendUploadForm(const PageCall& call) {
  sendHtml(call, 200, "Upload",
           "<h1>Upload</h1>\n<section><p>The answer tells the size and the SHA-256 of "
           "the file. Nothing is kept.</p>\n"
           "<form method=\"post\" enctype=\"multipart/form-data\">\n"
           "<input type=\"file\" name=\"file\" required>\n"
           "<button>Send</button></form></section>\n"
           "<p><a href=\"index.jsp\">Back</a></p>\n");
}

// Digest and size of what came.
struct Measure {
  Sha256 digest;
  std::int64_t size = 0;

  void take(std::string_view bytes) {
    digest.update(bytes);
    size += static_cast<std::int64_t>(bytes.size());
  }
};

static nlohmann::ordered_json factsOf(const PageCall& call, Measure& measure) {
  return {{"server", serverFacts(call)},
          {"size", measure.size},
          {"sha256", measure.digest.hex()}};
}

static void measureFile(const PageCall& call, const std::string& boundary) {
  Measure measure;
  MultipartReader reader(boundary, [&](std::string_view bytes) { measure.take(bytes); });
  std::int64_t total = 0;
  const bool whole = readBody(call, planOf(call), total,
                              [&](std::string_view block) { reader.feed(block); });
  if (!whole) throw brokenBody(call, total);
  if (reader.state() != MultipartReader::State::done) {
    throw BadRequest("the form data is cut off or malformed");
  }
  if (!reader.fileName()) throw BadRequest("the form data holds no file");
  nlohmann::ordered_json facts = factsOf(call, measure);
  facts["file"] = asUtf8(*reader.fileName());
  sendJson(call, facts);
}

static void measureBody(const PageCall& call) {
  Measure measure;
  std::int64_t total = 0;
  const bool whole = readBody(call, planOf(call), total,
                              [&](std::string_view block) { measure.take(block); });
  if (!whole) throw brokenBody(call, total);
  sendJson(call, factsOf(call, measure));
}

// upload: a form for GET; else size and SHA-256 of the body, or, for form data,
// of the first file in it.
void showUpload(const PageCall& call) {
  const std::string_view method = variableOf(call.request, "REQUEST_METHOD");
  if (method == "GET" || method == "HEAD") return sendUploadForm(call);
  const std::string_view* type = headerOf(call.request, "content-type");
  const std::optional<std::string> boundary =
      type ? multipartBoundary(*type) : std::nullopt;
  if (boundary) return measureFile(call, *boundary);
  measureBody(call);
}

}  // namespace backend
