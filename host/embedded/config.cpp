#include "embedded/config.h"

#include <arpa/inet.h>

#include <cstdint>
#include <filesystem>
#include <set>

#include "embedded/privileges.h"
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
  std::string_view rest = value;
  const std::string address(takeWord(&rest, kBlanks));
  const std::string_view word = trimmed(rest, kBlanks);
  const std::size_t colon = address.rfind(':');
  bool good = colon != std::string::npos && isAddress(address.substr(0, colon)) &&
              (word.empty() || word == "tls");
  if (good) {
    const std::int64_t port = numberOf(std::string_view(address).substr(colon + 1));
    good = port >= 0 && port <= kMaxPort;
  }
  if (!good) return "Listen needs ADDRESS:PORT [tls], not \"" + value + "\"";
  for (const ListenLine& line : reader->config->listeners) {
    const bool taken = line.address == address && !address.ends_with(":0");
    if (taken) return "Listen " + address + " stands in " + line.where + " already";
  }
  reader->config->listeners.push_back({address, word == "tls", where});
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

static std::string readSwitch(const char* name, const std::string& value, bool* on) {
  *on = value == "on";
  return value == "on" || value == "off" ? "" : std::string(name) + " is on or off";
}

static std::string readClientNames(Reader* reader, const std::string& value,
                                   const std::string&) {
  return readSwitch("ClientNames", value, &reader->config->clientNames);
}

static std::string readSymlinks(Reader* reader, const std::string& value,
                                const std::string&) {
  return readSwitch("SymlinksLeaveRoot", value, &reader->config->symlinksLeaveRoot);
}

static std::string readUser(Reader* reader, const std::string& value,
                            const std::string& where) {
  reader->config->user = value;
  reader->config->userWhere = where;
  return checkIdentity(value, {});
}

static std::string readGroup(Reader* reader, const std::string& value,
                             const std::string& where) {
  reader->config->group = value;
  reader->config->userWhere = where;
  return checkIdentity({}, value);
}

static std::string readCertificate(Reader* reader, const std::string& value,
                                   const std::string& where) {
  reader->config->tls.certificate = std::filesystem::absolute(value);
  reader->config->tls.where = where;
  return {};
}

static std::string readCertificateKey(Reader* reader, const std::string& value,
                                      const std::string& where) {
  reader->config->tls.key = std::filesystem::absolute(value);
  if (reader->config->tls.where.empty()) reader->config->tls.where = where;
  return {};
}

static std::string readClientCa(Reader* reader, const std::string& value,
                                const std::string&) {
  std::string_view rest = value;
  TlsFiles* tls = &reader->config->tls;
  tls->clientAuthorities = std::filesystem::absolute(takeWord(&rest, kBlanks));
  const std::string_view word = trimmed(rest, kBlanks);
  tls->client =
      word == "optional" ? ClientCertificate::optional : ClientCertificate::required;
  const bool good = word.empty() || word == "optional" || word == "required";
  return good ? "" : "ClientCA needs FILE [optional|required]";
}

static std::string readErrorLog(Reader* reader, const std::string& value,
                                const std::string& where) {
  reader->config->errorLog = value;
  reader->config->errorLogWhere = where;
  return {};
}

static std::string readAccessLog(Reader* reader, const std::string& value,
                                 const std::string& where) {
  reader->config->accessLog = value;
  reader->config->accessLogWhere = where;
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
    {"ClientNames", false, readClientNames},
    {"SymlinksLeaveRoot", false, readSymlinks},
    {"User", false, readUser},
    {"Group", false, readGroup},
    {"Certificate", false, readCertificate},
    {"CertificateKey", false, readCertificateKey},
    {"ClientCA", false, readClientCa},
    {"ErrorLog", false, readErrorLog},
    {"AccessLog", false, readAccessLog},
};

struct NumberDirective {
  std::string_view name;
  std::int64_t Limits::*field;
  std::int64_t least;
  std::int64_t most;
};

constexpr std::int64_t kMaxSeconds = 86400;
constexpr std::int64_t kMaxBytes = std::int64_t{1} << 50;

// Heads and trailers stand in memory whole, for every client at once.
constexpr std::int64_t kMaxLines = 1 << 20;

constexpr NumberDirective kNumberDirectives[] = {
    {"Threads", &Limits::threads, 1, 4096},
    {"MaxConnections", &Limits::maxConnections, 1, 1000000},
    {"LimitRequestHead", &Limits::requestHead, 1024, kMaxLines},
    {"LimitRequestFields", &Limits::requestFields, 1, 4000},
    {"LimitRequestUri", &Limits::requestUri, 64, kMaxLines},
    {"LimitRequestBody", &Limits::requestBody, 0, kMaxBytes},
    {"LimitTrailers", &Limits::trailers, 64, kMaxLines},
    {"HeadTimeout", &Limits::headTimeout, 1, kMaxSeconds},
    {"BodyTimeout", &Limits::bodyTimeout, 1, kMaxSeconds},
    {"MinBodyRate", &Limits::minBodyRate, 0, kMaxBytes},
    {"KeepAliveTimeout", &Limits::keepAliveTimeout, 0, kMaxSeconds},
    {"MinSendRate", &Limits::minSendRate, 0, kMaxBytes},
    {"SendTimeout", &Limits::sendTimeout, 1, kMaxSeconds},
    {"StopTimeout", &Limits::stopTimeout, 0, kMaxSeconds},
};

struct StageName {
  std::string_view name;
  Stage stage;
};

constexpr StageName kStageNames[] = {{"NameTrans", Stage::nameTrans},
                                     {"ObjectType", Stage::objectType},
                                     {"Service", Stage::service}};

// Takes the value of a server directive, which may stand there once.
static std::string takeValue(Reader* reader, std::string_view row, bool repeatable,
                             std::string* value) {
  const std::string name(row);
  if (reader->inObject) return name + " can't stand in an <Object>";
  if (!repeatable && !reader->seen.insert(name).second) return name + " is given twice";
  *value = valueOf(*value);
  return value->empty() ? name + " has no value" : std::string();
}

static std::string readServerDirective(Reader* reader, const ServerDirective& row,
                                       std::string value, const std::string& where) {
  std::string reason = takeValue(reader, row.name, row.repeatable, &value);
  if (reason.empty()) reason = row.read(reader, value, where);
  return reason;
}

static std::string readNumber(Reader* reader, const NumberDirective& row,
                              std::string value) {
  std::string reason = takeValue(reader, row.name, false, &value);
  if (!reason.empty()) return reason;
  const std::int64_t number = numberOf(value);
  reader->config->limits.*row.field = number;
  if (number >= row.least && number <= row.most) return {};
  return std::string(row.name) + " needs a number from " + std::to_string(row.least) +
         " to " + std::to_string(row.most);
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
    if (row.name == name)
      return readServerDirective(reader, row, std::string(text), where);
  }
  for (const NumberDirective& row : kNumberDirectives) {
    if (row.name == name) return readNumber(reader, row, std::string(text));
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

static std::string checkTls(const Config& config) {
  const bool half = config.tls.certificate.empty() != config.tls.key.empty();
  if (half) return config.tls.where + ": Certificate and CertificateKey need each other";
  for (const ListenLine& line : config.listeners) {
    const bool complete = !config.tls.certificate.empty() && !config.tls.key.empty();
    if (line.tls && !complete) {
      return line.where + ": tls needs Certificate and CertificateKey";
    }
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
  reason = checkTls(*config);
  if (reason.empty()) reason = completeStages(config);
  return reason;
}

}  // namespace host
