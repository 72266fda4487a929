#include "layer/stages.h"

#include <algorithm>
#include <utility>

#include "layer/builtins.h"
#include "layer/judge.h"
#include "layer/parameters.h"
#include "layer/request.h"
#include "layer/request_setup.h"

namespace host {

static bool wordMatches(std::string_view word, std::string_view value) {
  if (!word.empty() && word.back() == '*') {
    word.remove_suffix(1);
    return value.substr(0, word.size()) == word;
  }
  return word == value;
}

bool patternMatches(std::string_view pattern, std::string_view value) {
  bool list = pattern.size() >= 2 && pattern.front() == '(' && pattern.back() == ')';
  if (!list) return wordMatches(pattern, value);
  pattern = pattern.substr(1, pattern.size() - 2);
  for (std::size_t bar; (bar = pattern.find('|')) != std::string_view::npos;) {
    if (wordMatches(pattern.substr(0, bar), value)) return true;
    pattern.remove_prefix(bar + 1);
  }
  return wordMatches(pattern, value);
}

Stages::~Stages() {
  for (Line& line : inits_) freeParameters(line.parameters);
  for (auto& stage : stages_) {
    for (Line& line : stage) freeParameters(line.parameters);
  }
}

void Stages::addInit(Directive directive) {
  inits_.push_back(Line{.directive = std::move(directive), .init = true});
}

void Stages::add(Stage stage, Directive directive) {
  stages_[static_cast<int>(stage)].push_back(Line{.directive = std::move(directive)});
}

// No request runs while the configuration is read, so the block is the heap's,
// and lasts until it is freed.
static pblock* blockOf(const Directive& directive) {
  pblock* block = newParameters();
  for (const auto& [name, value] : directive.parameters) {
    if (addParameter(block, name.c_str(), value.c_str())) continue;
    freeParameters(block);
    return nullptr;
  }
  return block;
}

std::string Stages::findAll(Line* line) {
  const std::string* name = line->directive.find("fn");
  if (!name) return "the directive has no fn";
  line->function = findFunction(*name);
  if (!line->function) return "unknown function \"" + *name + "\"";
  const Builtin* builtin = builtinOf(line->function);
  if (builtin) {
    std::string reason = misuseOf(*builtin, line->directive, line->init);
    if (!reason.empty()) return reason;
  }
  line->parameters = blockOf(line->directive);
  if (!line->parameters) return "out of memory";
  line->type = findValue(line->parameters, "type");
  line->method = findValue(line->parameters, "method");
  return {};
}

static bool runsWhenRead(FuncPtr function) {
  const Builtin* builtin = builtinOf(function);
  return builtin && builtin->runsWhenRead;
}

// A module must be there before the lines that name its functions are judged, so
// load-modules runs here and not in runInits.
std::string Stages::prepareLine(Line* line) {
  std::string reason = findAll(line);
  if (reason.empty() && runsWhenRead(line->function)) reason = runInit(line);
  return reason;
}

std::string Stages::prepare() {
  auto prepareAll = [](std::deque<Line>* lines) -> std::string {
    for (Line& line : *lines) {
      std::string reason = prepareLine(&line);
      if (!reason.empty()) return line.directive.where + ": " + reason;
    }
    return {};
  };
  std::string reason = prepareAll(&inits_);
  for (auto& stage : stages_) {
    if (reason.empty()) reason = prepareAll(&stage);
  }
  return reason;
}

std::string Stages::keepPrepared(std::deque<Line>* lines, Directive directive) {
  lines->push_back(Line{.directive = std::move(directive), .init = lines == &inits_});
  std::string reason = prepareLine(&lines->back());
  if (reason.empty()) return {};
  freeParameters(lines->back().parameters);
  lines->pop_back();
  return reason;
}

std::string Stages::addPreparedInit(Directive directive) {
  return keepPrepared(&inits_, std::move(directive));
}

std::string Stages::addPrepared(Stage stage, Directive directive) {
  return keepPrepared(&stages_[static_cast<int>(stage)], std::move(directive));
}

bool Stages::has(Stage stage) const {
  return !stages_[static_cast<int>(stage)].empty();
}

bool Stages::serves(const Request* rq) const {
  const auto& lines = stages_[static_cast<int>(Stage::service)];
  return std::any_of(lines.begin(), lines.end(), [rq](const Line& line) {
    return applies(line, Stage::service, rq);
  });
}

std::string Stages::runInit(Line* line) {
  int result = line->function(line->parameters, nullptr, nullptr);
  if (!initFails(result)) return {};
  const char* reason = findValue(line->parameters, "error");
  if (reason) return reason;
  return "\"" + *line->directive.find("fn") + "\" failed";
}

// What the line says by itself doesn't count: it is no setting.
static bool tellSharedMemory(pblock* block, int descriptor) {
  constexpr const char* kName = "host-shared-memory";
  while (pb_param* own = findParameter(block, kName, true)) freeParameter(own);
  return descriptor < 0 || addParameter(block, kName, std::to_string(descriptor).c_str());
}

std::string Stages::runInits(int sharedMemory) {
  for (Line& line : inits_) {
    if (runsWhenRead(line.function)) continue;
    if (!tellSharedMemory(line.parameters, sharedMemory)) return "out of memory";
    std::string reason = runInit(&line);
    if (!reason.empty()) return line.directive.where + ": " + reason;
  }
  return {};
}

// `type` of a line of another stage is a parameter of its function.
bool Stages::applies(const Line& line, Stage stage, const Request* rq) {
  if (stage != Stage::service) return true;
  if (line.type) {
    const char* type = findValue(rq->srvhdrs, "content-type");
    if (!type || !patternMatches(line.type, type)) return false;
  }
  if (!line.method) return true;
  const char* method = findValue(rq->reqpb, "method");
  return method && patternMatches(line.method, method);
}

// A function that has done its part without a decision gives REQ_NOACTION, so the
// search goes on behind it.
int Stages::runStage(Stage stage, Session* sn, Request* rq) const {
  for (const Line& line : stages_[static_cast<int>(stage)]) {
    if (!applies(line, stage, rq)) continue;
    int result = line.function(line.parameters, sn, rq);
    if (result != REQ_NOACTION) return result;
  }
  return REQ_NOACTION;
}

// The scratch request isn't the thread's: what its functions allocate comes from
// the pool of the one that asks, so the path outlives it.
char* Stages::translate(const char* uri, Session* sn) const {
  HostRequest scratch;
  if (!openRequest(&scratch, static_cast<Exchange*>(sn->csd))) return nullptr;
  scratch.translateOnly = true;
  if (!addParameter(scratch.reqpb, "uri", uri)) return nullptr;
  const int result = runStage(Stage::nameTrans, sn, &scratch);
  if (judgeStage(result) == StageVerdict::failed) return nullptr;
  return pathOf(scratch.vars);
}

}  // namespace host
