#include "http/content_type.h"

#include "layer/text.h"

namespace host {

struct TypeRow {
  std::string_view ending;
  std::string_view type;
};

constexpr TypeRow kTypes[] = {
    {"html", "text/html; charset=utf-8"},
    {"htm", "text/html; charset=utf-8"},
    {"xhtml", "application/xhtml+xml"},
    {"css", "text/css; charset=utf-8"},
    {"js", "text/javascript; charset=utf-8"},
    {"mjs", "text/javascript; charset=utf-8"},
    {"txt", "text/plain; charset=utf-8"},
    {"md", "text/markdown; charset=utf-8"},
    {"csv", "text/csv; charset=utf-8"},
    {"ics", "text/calendar; charset=utf-8"},
    {"vtt", "text/vtt; charset=utf-8"},
    {"json", "application/json"},
    {"map", "application/json"},
    {"jsonld", "application/ld+json"},
    {"webmanifest", "application/manifest+json"},
    {"xml", "application/xml"},
    {"xsl", "application/xslt+xml"},
    {"atom", "application/atom+xml"},
    {"rss", "application/rss+xml"},
    {"pdf", "application/pdf"},
    {"rtf", "application/rtf"},
    {"doc", "application/msword"},
    {"xls", "application/vnd.ms-excel"},
    {"ppt", "application/vnd.ms-powerpoint"},
    {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
    {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
    {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
    {"odt", "application/vnd.oasis.opendocument.text"},
    {"ods", "application/vnd.oasis.opendocument.spreadsheet"},
    {"epub", "application/epub+zip"},
    {"zip", "application/zip"},
    {"gz", "application/gzip"},
    {"tgz", "application/gzip"},
    {"bz2", "application/x-bzip2"},
    {"xz", "application/x-xz"},
    {"7z", "application/x-7z-compressed"},
    {"tar", "application/x-tar"},
    {"jar", "application/java-archive"},
    {"wasm", "application/wasm"},
    {"svg", "image/svg+xml"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"gif", "image/gif"},
    {"webp", "image/webp"},
    {"avif", "image/avif"},
    {"bmp", "image/bmp"},
    {"tif", "image/tiff"},
    {"tiff", "image/tiff"},
    {"ico", "image/x-icon"},
    {"woff", "font/woff"},
    {"woff2", "font/woff2"},
    {"ttf", "font/ttf"},
    {"otf", "font/otf"},
    {"mp3", "audio/mpeg"},
    {"m4a", "audio/mp4"},
    {"oga", "audio/ogg"},
    {"ogg", "audio/ogg"},
    {"wav", "audio/wav"},
    {"flac", "audio/flac"},
    {"mp4", "video/mp4"},
    {"webm", "video/webm"},
    {"ogv", "video/ogg"},
    {"mov", "video/quicktime"},
    {"avi", "video/x-msvideo"},
    {"mkv", "video/x-matroska"},
};

std::string_view contentTypeOf(std::string_view path) {
  const std::size_t dot = path.find_last_of("./");
  std::string_view ending;
  if (dot != std::string_view::npos && path[dot] == '.') ending = path.substr(dot + 1);
  for (const TypeRow& row : kTypes) {
    if (equalsNoCase(row.ending, ending)) return row.type;
  }
  return "application/octet-stream";
}

}  // namespace host
