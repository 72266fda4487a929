#include "embedded/config.h"

#include <arpa/inet.h>

#include <cstdint>
#include <set>

#include "layer/builtins.h"
#include "layer/text.h"

namespace host {

constexpr int kMaxPort = 65535;

// One logical line: continuations are joined by a blank.
struct LogicalLine {
  int number;
  std::string text;
};

struct Reader {
  std::string file;
  Config* config;
  std::set<std::string, std::less<>> seen{};  // server directives
  std::string objectWhere{};                  // where the <Object> began
  bool inObject = false;
};

static bool isBlank(char c) {
  return kBlanks.find(c) != std::string_view::npos;
}

// A file from another system may have a carriage return at the end of its lines.
static std::string_view trimmed(std::string_view text) {
  return trimmed(text, " \t\r");
}

static bool joinLine(std::vector<LogicalLine>* lines, int number, std::string_view line) {
  std::string_view text = trimmed(line);
  if (text.empty() || line.front() == '#') return true;
  if (!isBlank(line.front())) {
    lines->push_back({number, std::string(text)});
    return true;
  }
  if (text.front() == '#') return true;
  if (lines->empty()) return false;
  lines->back().text.append(" ").append(text);
  return true;
}

static std::string at(const std::string& file, int number) {
  return file + ":" + std::to_string(number);
}

// A NUL would end the text early for all who read on: plug-ins take values as
// texts of C.
static std::string splitLines(std::string_view text, const std::string& file,
                              std::vector<LogicalLine>* lines) {
  for (int number = 1; !text.empty(); ++number) {
    std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.find('\0') != std::string_view::npos) {
      return at(file, number) + ": the line holds a NUL";
    }
    if (!joinLine(lines, number, line)) {
      return at(file, number) + ": there is no line to continue";
    }
  }
  return {};
}

// The value of a server directive: without a comment behind it, and without
// quotes around it.
static std::string valueOf(std::string_view text) {
  text = trimmed(text);
  if (!text.empty() && text.front() == '"') {
    std::size_t end = text.find('"', 1);
    if (end != std::string_view::npos) return std::string(text.substr(1, end - 1));
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '#' && (i == 0 || isBlank(text[i - 1]))) text = text.substr(0, i);
  }
  return std::string(trimmed(text));
}

static bool isAddress(const std::string& address) {
  in6_addr binary{};  // has room for an address of either family
  if (inet_pton(AF_INET, address.c_str(), &binary) == 1) return true;
  if (address.size() < 2 || address.front() != '[' || address.back() != ']') return false;
  return inet_pton(AF_INET6, address.substr(1, address.size() - 2).c_str(), &binary) == 1;
}

static std::string readListen(Reader* reader, const std::string& value,
                              const std::string& where) {
  const std::size_t colon = value.rfind(':');
  bool good = colon != std::string::npos && isAddress(value.substr(0, colon));
  if (good) {
    const std::int64_t port = numberOf(std::string_view(value).substr(colon + 1));
    good = port >= 0 && port <= kMaxPort;
  }
  if (!good) return "Listen needs ADDRESS:PORT, not \"" + value + "\"";
  reader->config->listeners.emplace_back(value, where);
  return {};
}

static std::string readServerName(Reader* reader, const std::string& value,
                                  const std::string&) {
  reader->config->serverName = value;
  return {};
}

static std::string readDocumentRoot(Reader* reader, const std::string& value,
                                    const std::string&) {
  reader->config->documentRoot = absoluteFolder(value);
  return reader->config->documentRoot.empty()
             ? "DocumentRoot \"" + value + "\" is not a folder"
             : std::string();
}

static std::string readDirectoryIndex(Reader* reader, const std::string& value,
                                      const std::string&) {
  if (value.find('/') != std::string::npos) {
    return "DirectoryIndex takes names without a slash";
  }
  reader->config->directoryIndex = value;
  return {};
}

static std::string readThreads(Reader* reader, const std::string& value,
                               const std::string&) {
  const std::int64_t threads = numberOf(value);
  if (threads < 1 || threads > kMaxThreads) {
    return "Threads needs a number from 1 to " + std::to_string(kMaxThreads);
  }
  reader->config->threads = static_cast<int>(threads);
  return {};
}

static std::string readClientNames(Reader* reader, const std::string& value,
                                   const std::string&) {
  reader->config->clientNames = value == "on";
  return value == "on" || value == "off" ? "" : "ClientNames is on or off";
}

static std::string readErrorLog(Reader* reader, const std::string& value,
                                const std::string& where) {
  reader->config->errorLog = value;
  reader->config->errorLogWhere = where;
  return {};
}

struct ServerDirective {
  std::string_view name;
  bool repeatable;
  std::string (*read)(Reader*, const std::string& value, const std::string& where);
};

constexpr ServerDirective kServerDirectives[] = {
    {"Listen", true, readListen},
    {"ServerName", false, readServerName},
    {"DocumentRoot", false, readDocumentRoot},
    {"DirectoryIndex", false, readDirectoryIndex},
    {"Threads", false, readThreads},
    {"ClientNames", false, readClientNames},
    {"ErrorLog", false, readErrorLog},
};

struct StageName {
  std::string_view name;
  Stage stage;
};

constexpr StageName kStageNames[] = {{"NameTrans", Stage::nameTrans},
                                     {"ObjectType", Stage::objectType},
                                     {"Service", Stage::service}};

static std::string readServerDirective(Reader* reader, const ServerDirective& row,
                                       std::string_view text, const std::string& where) {
  std::string name(row.name);
  if (reader->inObject) return name + " can't stand in an <Object>";
  if (!row.repeatable && !reader->seen.insert(name).second)
    return name + " is given twice";
  std::string value = valueOf(text);
  if (value.empty()) return name + " has no value";
  return row.read(reader, value, where);
}

static std::string readDirective(std::string_view text, const std::string& where,
                                 Directive* directive) {
  directive->where = where;
  std::string reason = parseParameters(text, directive);
  if (reason.empty() && !directive->find("fn")) reason = "the directive has no fn";
  return reason;
}

static std::string readInit(Reader* reader, std::string_view text,
                            const std::string& where) {
  if (reader->inObject) return "Init can't stand in an <Object>";
  Directive directive;
  std::string reason = readDirective(text, where, &directive);
  if (reason.empty()) reader->config->inits.push_back(std::move(directive));
  return reason;
}

static std::string readStage(Reader* reader, const StageName& row, std::string_view text,
                             const std::string& where) {
  if (!reader->inObject) return std::string(row.name) + " must stand in an <Object>";
  Directive directive;
  std::string reason = readDirective(text, where, &directive);
  if (reason.empty())
    reader->config->stages.emplace_back(row.stage, std::move(directive));
  return reason;
}

// Web servers of this API choose among objects by a request's path. This one
// has a single object, and says so rather than pass over the others in silence.
static std::string readObjectStart(Reader* reader, std::string_view text,
                                   const std::string& where) {
  if (reader->inObject) return "an <Object> can't stand in another";
  if (!reader->objectWhere.empty()) return "there can be one <Object> only";
  if (text.empty() || text.back() != '>') return "expected <Object name=\"default\">";
  Directive object;
  std::string reason = parseParameters(text.substr(0, text.size() - 1), &object);
  if (!reason.empty()) return reason;
  const std::string* name = object.find("name");
  if (!name || *name != "default") return "the object's name must be \"default\"";
  reader->inObject = true;
  reader->objectWhere = where;
  return {};
}

static std::string readObjectEnd(Reader* reader) {
  if (!reader->inObject) return "there is no <Object> to end";
  reader->inObject = false;
  return {};
}

static std::string readLine(Reader* reader, const LogicalLine& line) {
  std::string where = at(reader->file, line.number);
  std::string_view text = line.text;
  std::string_view name = text.substr(0, text.find_first_of(kBlanks));
  text.remove_prefix(name.size());
  if (name == "<Object") return readObjectStart(reader, trimmed(text), where);
  if (name == "</Object>") return readObjectEnd(reader);
  if (name == "Init") return readInit(reader, text, where);
  for (const StageName& row : kStageNames) {
    if (row.name == name) return readStage(reader, row, text, where);
  }
  for (const ServerDirective& row : kServerDirectives) {
    if (row.name == name) return readServerDirective(reader, row, text, where);
  }
  return "unknown directive \"" + std::string(name) + "\"";
}

// DirectoryIndex may stand behind the line that uses it.
static std::string completeStages(Config* config) {
  for (auto& [stage, directive] : config->stages) {
    std::string reason = completeBuiltin(&directive, config->directoryIndex);
    if (!reason.empty()) return directive.where + ": " + reason;
  }
  return {};
}

std::string readConfig(std::string_view text, const std::string& file, Config* config) {
  std::vector<LogicalLine> lines;
  std::string reason = splitLines(text, file, &lines);
  if (!reason.empty()) return reason;
  Reader reader{.file = file, .config = config};
  for (const LogicalLine& line : lines) {
    reason = readLine(&reader, line);
    if (!reason.empty()) return at(file, line.number) + ": " + reason;
  }
  if (reader.inObject) return reader.objectWhere + ": the <Object> has no end";
  if (config->listeners.empty()) {
    int last = lines.empty() ? 1 : lines.back().number;
    return at(file, last) + ": there is no Listen";
  }
  return completeStages(config);
}

}  // namespace host
