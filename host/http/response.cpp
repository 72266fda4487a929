#include "http/response.h"

#include <time.h>

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "layer/judge.h"
#include "layer/status.h"
#include "layer/text.h"

namespace host {

// What stands for itself in a header name besides letters and digits.
constexpr std::string_view kNameMarks = "!#$%&'*+-.^_`|~";

std::string httpTime(std::int64_t seconds) {
  const time_t when = seconds;
  tm utc{};
  (void)gmtime_r(&when, &utc);
  char text[40];
  return {text, strftime(text, sizeof(text), "%a, %d %b %Y %H:%M:%S GMT", &utc)};
}

static bool isNameByte(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) ||
         kNameMarks.find(c) != std::string_view::npos;
}

static bool isValueByte(char c) {
  return static_cast<unsigned char>(c) >= ' ' ? c != '\x7f' : c == '\t';
}

// A line end is part of a value only where the next line goes on with it.
static bool isFold(std::string_view rest) {
  return rest.starts_with("\r\n ") || rest.starts_with("\r\n\t");
}

static bool isValue(std::string_view value) {
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (isValueByte(value[i])) continue;
    if (!isFold(value.substr(i))) return false;
    i += 2;
  }
  return true;
}

static bool canBeSent(std::string_view name, std::string_view value) {
  return !name.empty() && std::all_of(name.begin(), name.end(), isNameByte) &&
         isValue(value);
}

// Headers that say how this connection carries the response, or that the host
// gives itself.
static bool belongsToHost(std::string_view name) {
  constexpr std::string_view kNames[] = {"date", "server", "connection", "keep-alive",
                                         "transfer-encoding"};
  return std::any_of(std::begin(kNames), std::end(kNames),
                     [name](std::string_view own) { return equalsNoCase(name, own); });
}

static void putHeader(std::string* text, std::string_view name, std::string_view value) {
  text->append(name).append(": ").append(value).append("\r\n");
}

// One header of the plug-in: copies it, keeps its meaning, or drops it.
static void takeHeader(ResponseHead* head, const pb_param* param, bool lengthAllowed) {
  std::string_view name = param->name;
  std::string_view value = param->value;
  if (!canBeSent(name, value)) {
    head->rejected.append(head->rejected.empty() ? "" : ", ").append(name);
  } else if (equalsNoCase(name, "connection")) {
    head->close = head->close || equalsNoCase(value, "close");
  } else if (equalsNoCase(name, "content-length")) {
    // The first one that can be one counts.
    bool first = head->length < 0 && lengthAllowed;
    if (first) head->length = numberOf(value);
    if (first && head->length >= 0) putHeader(&head->text, name, value);
  } else if (!belongsToHost(name)) {
    putHeader(&head->text, name, value);
  }
}

static Framing framingOf(int status, const ResponseHead& head, const HeadSettings& s) {
  if (s.headRequest || isHeadOnly(status)) return Framing::none;
  if (head.length >= 0) return Framing::counted;
  return s.http11 ? Framing::chunked : Framing::untilClose;
}

ResponseHead buildHead(int status, const char* reason, const pblock* srvhdrs,
                       const HeadSettings& settings) {
  ResponseHead head{{}, 0, Framing::none, -1, !settings.keepAlive, {}};
  if (!reason) reason = usualReason(status);
  head.text = "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n";
  putHeader(&head.text, "Date", settings.date);
  putHeader(&head.text, "Server", settings.server);
  for (const pb_entry* entry = srvhdrs->ht[0]; entry; entry = entry->next) {
    takeHeader(&head, entry->param, status != kNoContent);
  }
  head.framing = framingOf(status, head, settings);
  const bool counted = head.framing == Framing::none || head.length >= 0;
  if (announcesClose(settings.outcome, counted)) head.close = true;
  if (head.framing == Framing::untilClose) head.close = true;
  if (head.framing == Framing::chunked) {
    putHeader(&head.text, "Transfer-Encoding", "chunked");
  }
  head.fate = head.text.size();
  if (head.close) putHeader(&head.text, "Connection", "close");
  if (!head.close && !settings.http11) putHeader(&head.text, "Connection", "keep-alive");
  head.text += "\r\n";
  return head;
}

void ResponseWriter::start(ResponseHead head) {
  head_ = std::move(head);
  left_ = head_.framing == Framing::counted ? head_.length : 0;
  started_ = headWaits_ = true;
}

bool ResponseWriter::send(std::span<iovec> parts, bool more) {
  if (failed_) return false;
  failed_ = !sink_->send(parts, more);
  return !failed_;
}

// The API of sockets knows no const; nobody writes through these.
static iovec part(std::string_view bytes) {
  return {const_cast<char*>(bytes.data()), bytes.size()};
}

// The head if it still waits, and else nothing.
iovec ResponseWriter::takeHead() {
  const bool waits = headWaits_;
  headWaits_ = false;
  return part(waits ? std::string_view(head_.text) : std::string_view());
}

bool ResponseWriter::sendHead() {
  if (!headWaits_) return !failed_;
  iovec parts[] = {takeHead()};
  return send(parts, false);
}

// Whatever must go with a block leaves with it, and nothing is copied for that.
bool ResponseWriter::sendBlock(const char* bytes, std::size_t size) {
  char line[24] = "";
  int lineSize = 0;
  std::string_view end;
  if (head_.framing == Framing::chunked) {
    lineSize = std::snprintf(line, sizeof(line), "%zx\r\n", size);
    end = "\r\n";
  }
  iovec parts[] = {takeHead(), part({line, static_cast<std::size_t>(lineSize)}),
                   part({bytes, size}), part(end)};
  return send(parts, false);
}

bool ResponseWriter::write(const char* bytes, std::size_t size) {
  if (head_.framing == Framing::none) return !failed_;
  if (head_.framing == Framing::counted) {
    size = std::min(size, static_cast<std::size_t>(left_));
    left_ -= static_cast<std::int64_t>(size);
  }
  bodyBytes_ += static_cast<std::int64_t>(size);
  return size > 0 ? sendBlock(bytes, size) : !failed_;
}

bool ResponseWriter::writeFile(int file, std::int64_t offset, std::int64_t count) {
  if (head_.framing != Framing::counted) return !failed_;
  count = std::min(count, left_);
  iovec parts[] = {takeHead()};
  if (!send(parts, true)) return false;
  failed_ = !sink_->sendFile(file, offset, count);
  if (!failed_) left_ -= count;
  if (!failed_) bodyBytes_ += count;
  return !failed_;
}

std::int64_t ResponseWriter::missing() const {
  return head_.framing == Framing::counted ? left_ : -1;
}

void ResponseWriter::announceClose() {
  head_.text.resize(head_.fate);
  putHeader(&head_.text, "Connection", "close");
  head_.text += "\r\n";
  head_.close = true;
}

// The head goes out all the same: a browser that has seen nothing at all sends its
// request once more.
bool ResponseWriter::cut() {
  if (started_) (void)sendHead();
  return false;
}

bool ResponseWriter::finish(bool keep) {
  if (!started_) return false;
  if (!keep && headWaits_ && !head_.close) announceClose();
  const bool chunked = head_.framing == Framing::chunked;
  iovec parts[] = {takeHead(), part(chunked ? "0\r\n\r\n" : "")};
  const bool some = parts[0].iov_len + parts[1].iov_len > 0;
  if (some && !send(parts, false)) return false;
  return !failed_ && left_ == 0 && !head_.close;
}

}  // namespace host
