#include "request_model.h"

#include <cctype>
#include <ostream>

// Has need of std::ostream.
#include <boost/beast/http/verb.hpp>

namespace {

enum class Reading { whole, refused, cutOff };

struct Message {
  std::string told{};
  bool http11 = false;
  bool chunked = false;
  std::string length{};  // as it stands there
  int hosts = 0, lengths = 0, codings = 0, fields = 0;
};

struct Model {
  std::string_view bytes;
  const host::Limits& limits;
  std::size_t at = 0;  // the next byte
};

}  // namespace

static bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

static bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

static bool isToken(std::string_view text) {
  for (const char c : text) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isDigit(c);
    if (!letter && std::string_view("!#$%&'*+-.^_`|~").find(c) == std::string_view::npos)
      return false;
  }
  return !text.empty();
}

static bool isText(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte < ' ' && c != '\t') || byte == 127) return false;
  }
  return true;
}

static std::string_view trim(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

static std::string lower(std::string_view text) {
  std::string result;
  for (const char c : text) {
    result += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return result;
}

// The next line without its end. A line feed alone, or any control byte, spoils it;
// so does a length beyond `most`, its end included.
static Reading readLine(Model* model, std::size_t most, std::string_view* line) {
  std::size_t size = 0;
  const std::string_view rest = model->bytes.substr(model->at);
  while (size < rest.size() && rest[size] != '\n') ++size;
  if (size == rest.size()) return size > most ? Reading::refused : Reading::cutOff;
  if (size + 1 > most || size == 0 || rest[size - 1] != '\r') return Reading::refused;
  *line = rest.substr(0, size - 1);
  model->at += size + 1;
  return Reading::whole;
}

// --- heads --------------------------------------------------------------------

static bool isGoodTarget(std::string_view method, std::string_view target) {
  using boost::beast::http::verb;
  const verb known = boost::beast::http::string_to_verb({method.data(), method.size()});
  const bool unread =
      known == verb::unknown || known == verb::connect || known == verb::trace;
  if (unread || target[0] == '/') return true;
  if (target == "*") return method == "OPTIONS";
  const std::size_t colon = target.find("://");
  const std::string scheme = lower(target.substr(0, colon));
  if (colon == target.npos || (scheme != "http" && scheme != "https")) return false;
  target.remove_prefix(colon + 3);
  const std::string_view authority = target.substr(0, target.find_first_of("/?#"));
  return !authority.empty() && authority.find_first_of("@\\\"<>") == authority.npos;
}

static bool readRequestLine(std::string_view line, Message* message) {
  const std::size_t first = line.find(' ');
  const std::size_t second = line.find(' ', first + 1);
  if (first == line.npos || second == line.npos) return false;
  const std::string_view method = line.substr(0, first);
  const std::string_view target = line.substr(first + 1, second - first - 1);
  const std::string_view version = line.substr(second + 1);
  message->http11 = version == "HTTP/1.1";
  message->told = std::string(method) + " " + std::string(target) + "\n";
  if (!isToken(method) || target.empty() || !isText(target)) return false;
  if (target.find('\t') != target.npos || !isGoodTarget(method, target)) return false;
  return message->http11 || version == "HTTP/1.0";
}

static bool isTokenList(std::string_view value) {
  while (true) {
    const std::size_t comma = value.find(',');
    const std::string_view one = trim(value.substr(0, comma));
    if (!one.empty() && !isToken(one)) return false;
    if (comma == value.npos) return true;
    value.remove_prefix(comma + 1);
  }
}

static bool readFraming(const std::string& name, std::string_view value,
                        Message* message) {
  if (name == "host") {
    return ++message->hosts == 1 && value.find_first_of(" \t/?#@\\\"<>") == value.npos;
  }
  if (name == "content-length") {
    message->length = value;
    for (const char c : value) {
      if (!isDigit(c)) return false;
    }
    return !value.empty() && ++message->lengths == 1;
  }
  if (name == "transfer-encoding") {
    message->chunked = true;
    return lower(value) == "chunked" && ++message->codings == 1;
  }
  return (name != "connection" && name != "proxy-connection") || isTokenList(value);
}

static bool readField(std::string_view line, Message* message) {
  const std::size_t colon = line.find(':');
  if (colon == line.npos || !isToken(line.substr(0, colon))) return false;
  const std::string name = lower(line.substr(0, colon));
  const std::string_view value = trim(line.substr(colon + 1));
  message->told += name + ":" + std::string(value) + "\n";
  return isText(value) && readFraming(name, value, message);
}

static std::uint64_t lengthOf(const std::string& digits) {
  constexpr std::uint64_t kMost = std::uint64_t{1} << 63;
  std::uint64_t length = 0;
  for (const char c : digits) {
    if (length > kMost / 10) return kMost;
    length = length * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return length;
}

static bool isFramed(const Message& message) {
  if (message.http11 && message.hosts == 0) return false;
  if (message.chunked && (message.lengths > 0 || !message.http11)) return false;
  return lengthOf(message.length) < std::uint64_t{1} << 63;
}

// A line's end and its first byte are judged as soon as they have come, all else
// when the head is whole.
static Reading readHead(Model* model, Message* message) {
  const std::size_t begin = model->at;
  const auto most = static_cast<std::size_t>(model->limits.requestHead);
  bool good = true;
  for (std::string_view line; true;) {
    const bool first = model->at == begin;
    const Reading read = readLine(model, most - (model->at - begin), &line);
    if (read != Reading::whole) return read;
    if (line.empty()) break;
    if (isBlank(line[0])) return Reading::refused;
    good = good && (first ? readRequestLine(line, message) : readField(line, message));
    if (!first) ++message->fields;
  }
  const bool few = message->fields <= model->limits.requestFields;
  return good && few && isFramed(*message) ? Reading::whole : Reading::refused;
}

// --- bodies -------------------------------------------------------------------

static Reading readCounted(Model* model, std::uint64_t size, std::string* told) {
  const std::string_view part =
      model->bytes.substr(model->at).substr(0, static_cast<std::size_t>(size));
  told->append(part);
  model->at += part.size();
  return part.size() == size ? Reading::whole : Reading::cutOff;
}

// The size of a chunk, in up to fifteen digits; false for a line that is none.
static bool readSize(std::string_view line, std::uint64_t* size) {
  std::size_t digits = 0;
  *size = 0;
  for (; digits < line.size() && std::isxdigit(static_cast<unsigned char>(line[digits]));
       ++digits) {
    const char c = line[digits];
    *size = *size * 16 +
            static_cast<std::uint64_t>(isDigit(c) ? c - '0' : (c | 32) - 'a' + 10);
  }
  const std::string_view rest = line.substr(digits);
  const bool extended = trim(rest).starts_with(';');
  return digits > 0 && digits <= 15 && isText(line) && (rest.empty() || extended);
}

static Reading readTrailers(Model* model) {
  const std::size_t begin = model->at;
  const auto most = static_cast<std::size_t>(model->limits.trailers);
  for (std::string_view line; true;) {
    const Reading read = readLine(model, most - (model->at - begin), &line);
    if (read != Reading::whole || line.empty()) return read;
    if (!isText(line)) return Reading::refused;
  }
}

static Reading readChunks(Model* model, std::string* told) {
  while (true) {
    std::string_view line;
    std::uint64_t size = 0;
    const auto most = static_cast<std::size_t>(model->limits.trailers);
    if (readLine(model, most, &line) != Reading::whole) return Reading::refused;
    if (!readSize(line, &size)) return Reading::refused;
    if (size == 0) return readTrailers(model);
    if (readCounted(model, size, told) != Reading::whole) return Reading::cutOff;
    if (!model->bytes.substr(model->at).starts_with("\r\n")) return Reading::refused;
    model->at += 2;
  }
}

std::vector<SeenRequest> readStrictly(std::string_view bytes,
                                      const host::Limits& limits) {
  std::vector<SeenRequest> seen;
  Model model{bytes, limits};
  while (true) {
    while (bytes.substr(model.at).starts_with("\r\n")) model.at += 2;
    if (bytes.substr(model.at) == "\r") return seen;
    Message message;
    Reading reading = readHead(&model, &message);
    if (reading == Reading::cutOff) return seen;
    if (reading == Reading::refused) message.told = "refused";
    if (reading == Reading::whole) {
      reading = message.chunked
                    ? readChunks(&model, &message.told)
                    : readCounted(&model, lengthOf(message.length), &message.told);
    }
    const bool whole = reading == Reading::whole;
    seen.push_back({message.told, whole ? model.at : 0});
    if (!whole) return seen;
  }
}
