// The directives that run functions: at start-up, and in the stages of each
// request.
//
// A web server collects its directives in a Stages: all of them first, and then
// prepare; or each one prepared as it is read. It calls runInits before the
// first request, and runStage for each request.
//
// Ownership: a Stages owns its directives and their parameter blocks, which
// must outlive every request: plug-ins keep pointers into the blocks of Init.
// Threads: set up by one thread; from then on read only, any number of threads.
// Errors: a text that begins with "file:line: "; empty for success. The
// addPrepared pair leaves the place out.
#pragma once

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "layer/directive.h"
#include "nsapi.h"

namespace host {

enum class Stage { nameTrans, objectType, service };
constexpr int kStages = 3;

// True when a pattern takes a value: "a/b" itself, "a/*" all that begins with
// "a/", "(x|y)" what x or y takes.
[[nodiscard]] bool patternMatches(std::string_view pattern, std::string_view value);

class Stages {
 public:
  Stages() = default;
  Stages(const Stages&) = delete;
  Stages& operator=(const Stages&) = delete;
  ~Stages();

  void addInit(Directive directive);
  void add(Stage stage, Directive directive);

  // Loads the modules that load-modules lines name, then finds every function.
  // Runs no other function.
  [[nodiscard]] std::string prepare();

  // Prepares one directive by itself, after those before it, and keeps it unless
  // it is wrong.
  [[nodiscard]] std::string addPreparedInit(Directive directive);
  [[nodiscard]] std::string addPrepared(Stage stage, Directive directive);

  // True when the stage has directives.
  [[nodiscard]] bool has(Stage stage) const;

  // True when a Service line takes the request, by its type and method.
  [[nodiscard]] bool serves(const Request* rq) const;

  // Runs the Init functions in order. Where a web server has memory that all its
  // processes share, each function finds its descriptor as "host-shared-memory", -1:
  // none. REQUIRES: every line is prepared.
  [[nodiscard]] std::string runInits(int sharedMemory = -1);

  // Runs one stage: the result of the first function that gives something
  // other than REQ_NOACTION, else REQ_NOACTION. REQUIRES: `rq` runs on this
  // thread, or is a scratch request of it.
  [[nodiscard]] int runStage(Stage stage, Session* sn, Request* rq) const;

  // The path that the NameTrans functions give for a URI, in memory of the
  // running request, or null. Its `reqpb` gets `uri` alone.
  [[nodiscard]] char* translate(const char* uri, Session* sn) const;

 private:
  struct Line {
    Directive directive;
    FuncPtr function = nullptr;
    pblock* parameters = nullptr;
    bool init = false;             // stands in Init, not in a stage
    const char* type = nullptr;    // null: any content type, also none
    const char* method = nullptr;  // null: any method
  };
  static std::string findAll(Line* line);
  static std::string prepareLine(Line* line);
  std::string keepPrepared(std::deque<Line>* lines, Directive directive);
  static std::string runInit(Line* line);
  static bool applies(const Line& line, Stage stage, const Request* rq);

  std::deque<Line> inits_;
  std::deque<Line> stages_[kStages];
};

}  // namespace host
