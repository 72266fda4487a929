#include "backend/pages/multipart.h"

#include <algorithm>
#include <utility>

#include "backend/text.h"

namespace backend {

constexpr std::size_t kMaxPartHead{16U << 10U};
constexpr std::size_t kMaxBoundary = 70;  // the longest that a sender may choose

// Takes the next piece up to a ';' that stands outside quotes.
static std::string_view nextPiece(std::string_view& rest) {
  bool quoted = false;
  std::size_t end = 0;
  for (; end < rest.size(); ++end) {
    if (quoted && rest[end] == '\\') {
      ++end;
    } else if (rest[end] == '"') {
      quoted = !quoted;
    } else if (rest[end] == ';' && !quoted) {
      break;
    }
  }
  const std::string_view piece = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return trimmed(piece);
}

static std::string unquoted(std::string_view text) {
  if (text.size() < 2 || text.front() != '"' || text.back() != '"') {
    return std::string(text);
  }
  std::string result;
  text = text.substr(1, text.size() - 2);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) ++i;
    result.push_back(text[i]);
  }
  return result;
}

// The value of a parameter of a header value such as 'form-data; name="x"'.
static std::optional<std::string> parameterOf(std::string_view value,
                                              std::string_view name) {
  (void)nextPiece(value);  // the value proper stands before the first ';'
  while (!value.empty()) {
    const std::string_view piece = nextPiece(value);
    const std::size_t equals = piece.find('=');
    if (equals == std::string_view::npos) continue;
    if (!equalsNoCase(trimmed(piece.substr(0, equals)), name)) continue;
    return unquoted(trimmed(piece.substr(equals + 1)));
  }
  return std::nullopt;
}

// The value of a header in lines that end in CR LF.
static std::string_view headerIn(std::string_view lines, std::string_view name) {
  while (!lines.empty()) {
    const std::size_t end = std::min(lines.find("\r\n"), lines.size());
    const std::string_view line = lines.substr(0, end);
    lines.remove_prefix(std::min(end + 2, lines.size()));
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    if (equalsNoCase(trimmed(line.substr(0, colon)), name)) {
      return trimmed(line.substr(colon + 1));
    }
  }
  return {};
}

std::optional<std::string> multipartBoundary(std::string_view contentType) {
  std::string_view rest = contentType;
  if (!equalsNoCase(nextPiece(rest), "multipart/form-data")) return std::nullopt;
  std::optional<std::string> boundary = parameterOf(contentType, "boundary");
  if (!boundary || boundary->empty() || boundary->size() > kMaxBoundary) {
    return std::nullopt;
  }
  return boundary;
}

// The first delimiter may stand at the very start: the CR LF that it lacks is
// put in front of the body.
MultipartReader::MultipartReader(std::string_view boundary, Sink sink)
    : delimiter_("\r\n--" + std::string(boundary)),
      sink_(std::move(sink)),
      pending_("\r\n") {}

void MultipartReader::feed(std::string_view bytes) {
  if (state_ == State::done || state_ == State::malformed) return;
  pending_.append(bytes);
  while (step()) {
  }
}

// One step; false when more bytes are needed or nothing is left to do.
bool MultipartReader::step() {
  switch (state_) {
    case State::preamble:
    case State::part:
      return stepContent();
    case State::headers:
      return stepHeaders();
    default:
      return false;
  }
}

void MultipartReader::emit(std::size_t size) {
  if (wanted_ && size > 0) sink_(std::string_view(pending_).substr(0, size));
  pending_.erase(0, size);
}

bool MultipartReader::stepContent() {
  const std::size_t at = pending_.find(delimiter_);
  if (at == std::string::npos) {
    // The tail may be the beginning of a delimiter.
    const std::size_t kept = delimiter_.size() - 1;
    if (pending_.size() > kept) emit(pending_.size() - kept);
    return false;
  }
  emit(at);
  pending_.erase(0, delimiter_.size());
  wanted_ = false;
  state_ = State::headers;
  return true;
}

// Behind a delimiter stand two dashes at the end of all, or else blanks, CR LF,
// header lines and an empty line.
bool MultipartReader::stepHeaders() {
  if (pending_.size() < 2) return false;
  if (pending_.compare(0, 2, "--") == 0) {
    state_ = State::done;
    pending_.clear();
    return false;
  }
  const std::size_t end = pending_.find("\r\n\r\n");
  const bool isDelimiter =
      std::string_view("\r \t").find(pending_[0]) != std::string_view::npos;
  if (!isDelimiter || end == std::string::npos) {
    if (!isDelimiter || pending_.size() > kMaxPartHead) state_ = State::malformed;
    return false;
  }
  const std::string_view disposition =
      headerIn(std::string_view(pending_).substr(0, end), "content-disposition");
  const std::optional<std::string> name = parameterOf(disposition, "filename");
  wanted_ = name.has_value() && !fileName_.has_value();
  if (wanted_) fileName_ = name;
  pending_.erase(0, end + 4);
  state_ = State::part;
  return true;
}

MultipartReader::State MultipartReader::state() const {
  return state_;
}

const std::optional<std::string>& MultipartReader::fileName() const {
  return fileName_;
}

}  // namespace backend
