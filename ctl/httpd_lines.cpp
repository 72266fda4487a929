#include "ctl/httpd_lines.h"

#include <glob.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include "layer/text.h"

namespace ctl {

namespace fs = std::filesystem;
using host::kBlanks;
using host::trimmed;

constexpr std::size_t kMostIncludes = 40;  // within each other
constexpr int kMostFiles = 10000;          // and folders, in all
// A value that is made of itself doubles with each line.
constexpr std::size_t kLongestLine = std::size_t{1} << 20;

// Modules that are there without a LoadModule line, as Debian builds httpd.
constexpr const char* kBuiltIn[] = {"core",  "http", "log_config", "logio",
                                    "unixd", "so",   "version",    "watchdog"};

static std::string lowered(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

// Takes the next word, which may stand in quotes of either kind.
static std::string takeWord(std::string_view* text) {
  *text = trimmed(*text, kBlanks);
  std::string word;
  const char quote = text->empty() ? '\0' : text->front();
  if (quote != '"' && quote != '\'') {
    word = text->substr(0, text->find_first_of(kBlanks));
    text->remove_prefix(word.size());
    return word;
  }
  text->remove_prefix(1);
  while (!text->empty() && text->front() != quote) {
    const bool escaped = text->front() == '\\' && text->size() > 1 && (*text)[1] == quote;
    if (escaped) text->remove_prefix(1);
    word.push_back(text->front());
    text->remove_prefix(1);
  }
  if (!text->empty()) text->remove_prefix(1);
  return word;
}

std::string HttpdLine::word() const {
  std::string_view rest = text;
  return takeWord(&rest);
}

const HttpdSection* HttpdLine::within(const std::string& section) const {
  const auto found =
      std::find_if(sections.rbegin(), sections.rend(),
                   [&section](const auto& one) { return one.name == section; });
  return found == sections.rend() ? nullptr : &*found;
}

// "nsapi" for "nsapi_module", "mod_nsapi.c" and "mod_nsapi".
static std::string moduleOf(std::string name) {
  if (name.starts_with("mod_")) name.erase(0, 4);
  for (const std::string ending : {".c", "_module", "_core"}) {
    if (name.ends_with(ending)) name.resize(name.size() - ending.size());
  }
  return name;
}

// Anything but a file may have no end, or never begin.
std::string readWholeFile(const std::string& file) {
  std::error_code error;
  std::ifstream in;
  if (fs::is_regular_file(file, error)) in.open(file, std::ios::binary);
  std::string text;
  if (in.is_open()) text.assign(std::istreambuf_iterator<char>(in), {});
  if (!in.is_open() || in.bad()) throw std::runtime_error("can't read " + file);
  return text;
}

namespace {

class Reader {
 public:
  explicit Reader(HttpdLines* all) : result(all), modules(kBuiltIn, std::end(kBuiltIn)) {}

  void begin(const fs::path& file) {
    serverRoot = fs::absolute(file).parent_path();
    readEnvironment(serverRoot / "envvars");
    readOpen(file);
  }

 private:
  struct Open {
    HttpdSection section;
    bool isCondition;
    bool holds;
  };

  // Keeps a file or folder among those that are being read.
  class Reading {
   public:
    Reading(Reader* reader, const fs::path& file) : paths(&reader->reading) {
      paths->push_back(fs::weakly_canonical(file));
    }
    ~Reading() {
      paths->pop_back();
    }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

   private:
    std::vector<fs::path>* paths;
  };

  void complain(const std::string& where, const std::string& text) {
    result->faults.push_back({where, text});
  }

  // What Debian's apachectl puts into the environment: plain assignments alone.
  void readEnvironment(const fs::path& file) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
      constexpr std::string_view kExport = "export ";
      const std::size_t equals = line.find('=');
      if (!line.starts_with(kExport) || equals == std::string::npos) continue;
      const std::string value = line.substr(equals + 1);
      const std::string name = line.substr(kExport.size(), equals - kExport.size());
      // The suffix of a second instance is empty in the first.
      values[name] = value.substr(0, value.find('$'));
    }
  }

  [[nodiscard]] const char* valueOf(const std::string& name) const {
    const auto found = values.find(name);
    return found == values.end() ? std::getenv(name.c_str()) : found->second.c_str();
  }

  // The name that a "${" at the beginning opens, or "". It ends at the next '$' too, so
  // that a line full of them is looked at once.
  static std::string nameAt(std::string_view text) {
    if (!text.starts_with("${")) return "";
    const std::size_t end = text.find_first_of("$}", 2);
    const bool whole = end != std::string_view::npos && text[end] == '}';
    return whole ? std::string(text.substr(2, end - 2)) : "";
  }

  // A name without a value stays as it is, as httpd leaves it. What gets too long is cut
  // one byte or more behind the limit.
  [[nodiscard]] std::string expanded(std::string_view text) const {
    std::string whole;
    while (!text.empty() && whole.size() <= kLongestLine) {
      const std::string name = nameAt(text);
      const char* value = name.empty() ? nullptr : valueOf(name);
      whole.append(value ? std::string_view(value) : text.substr(0, 1));
      text.remove_prefix(value ? name.size() + std::string_view("${}").size() : 1);
    }
    return whole;
  }

  void readText(const std::string& text, const std::string& file) {
    std::istringstream in(text);
    const std::size_t outer = open.size();
    std::string whole;
    int begin = 0;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
      ++number;
      if (whole.empty()) begin = number;
      if (line.ends_with('\r')) line.pop_back();
      whole += line;
      if (whole.ends_with('\\')) {
        whole.back() = ' ';
        continue;
      }
      readLine(trimmed(whole, kBlanks), file + ":" + std::to_string(begin));
      whole.clear();
    }
    for (; open.size() > outer; open.pop_back()) {
      const HttpdSection& section = open.back().section;
      complain(section.where, "<" + section.name + "> has no end in its file");
    }
  }

  void readLine(std::string_view text, const std::string& where) {
    if (text.empty() || text.front() == '#') return;
    if (text.starts_with("</")) return closeSection(text, where);
    const std::string whole = expanded(text);
    if (whole.size() > kLongestLine) return complain(where, "the line is too long");
    if (whole.empty()) return;
    if (whole.front() == '<') return openSection(whole, where);
    if (std::any_of(open.begin(), open.end(), [](const Open& one) { return !one.holds; }))
      return;
    std::string_view rest = whole;
    const std::string name = lowered(takeWord(&rest));
    takeLine({name, std::string(trimmed(rest, kBlanks)), where, {}});
  }

  void closeSection(std::string_view text, const std::string& where) {
    const std::string name = lowered(text.substr(2, text.find('>') - 2));
    if (open.empty() || open.back().section.name != name)
      return complain(where, "</" + name + "> ends no section");
    open.pop_back();
  }

  void openSection(std::string_view text, const std::string& where) {
    if (!text.ends_with('>')) return complain(where, "the section has no '>'");
    text = text.substr(1, text.size() - 2);
    const std::string name = lowered(takeWord(&text));
    std::string argument = takeWord(&text);
    // <Location ~ "regex">
    if (argument == "~") argument += " " + takeWord(&text);
    const bool isCondition = name.starts_with("if") && name != "if";
    open.push_back({{name, argument, where}, isCondition, holds(name, argument)});
  }

  [[nodiscard]] bool holds(const std::string& name, std::string argument) const {
    const bool negated = argument.starts_with('!');
    if (negated) argument.erase(0, 1);
    bool found = !negated;
    if (name == "ifmodule") found = modules.contains(moduleOf(argument));
    if (name == "ifdefine") found = values.contains(argument);
    if (name == "iffile") found = fs::exists(serverRoot / argument);
    return found != negated;
  }

  void takeLine(HttpdLine line) {
    std::string_view rest = line.text;
    const std::string first = takeWord(&rest);
    if (line.name == "include") return include(first, line.where, false);
    if (line.name == "includeoptional") return include(first, line.where, true);
    if (line.name == "serverroot") serverRoot = first;
    if (line.name == "loadmodule") modules.insert(moduleOf(first));
    if (line.name == "define") values[first] = takeWord(&rest);
    if (line.name == "undefine") values.erase(first);
    for (const Open& one : open) {
      if (!one.isCondition) line.sections.push_back(one.section);
    }
    result->lines.push_back(std::move(line));
  }

  void include(const std::string& pattern, const std::string& where, bool optional) {
    const std::string full = (serverRoot / pattern).lexically_normal();
    glob_t found{};
    const int failed = glob(full.c_str(), 0, nullptr, &found);
    std::vector<std::string> files(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    globfree(&found);
    if (failed != 0 && !optional) complain(where, "there is no file " + full);
    for (const std::string& file : files) includeOne(file, where);
  }

  // Why one more file or folder can't be read within those that are open, or "".
  std::string whyNot(const fs::path& file) {
    if (filesRead >= kMostFiles) return "too many files";
    if (reading.size() >= kMostIncludes) return "too many files within each other";
    if (std::find(reading.begin(), reading.end(), fs::canonical(file)) != reading.end())
      return file.string() + " includes itself";
    return "";
  }

  // A folder stands for all files in it, in order of their names.
  void includeOne(const fs::path& file, const std::string& where) try {
    const std::string reason = gaveUp ? "" : whyNot(file);
    // Told once: what asks for that many would be told as often.
    gaveUp = gaveUp || filesRead >= kMostFiles;
    if (!reason.empty()) return complain(where, reason);
    if (gaveUp) return;
    if (!fs::is_directory(file)) return readOpen(file);
    ++filesRead;
    const Reading current(this, file);
    std::set<fs::path> files;
    for (const auto& entry : fs::directory_iterator(file)) files.insert(entry.path());
    for (const fs::path& one : files) includeOne(one, where);
  } catch (const std::exception& error) {
    complain(where, error.what());
  }

  void readOpen(const fs::path& file) {
    ++filesRead;
    const Reading current(this, file);
    readText(readWholeFile(file), file.string());
  }

  HttpdLines* result;
  std::set<std::string> modules;
  std::map<std::string, std::string> values{};  // of Define, and of the environment
  fs::path serverRoot{};
  std::vector<Open> open{};
  std::vector<fs::path> reading{};  // files and folders within each other
  int filesRead = 0;
  bool gaveUp = false;
};

}  // namespace

HttpdLines readHttpdLines(const std::string& file) {
  HttpdLines all;
  Reader(&all).begin(file);
  return all;
}

}  // namespace ctl
