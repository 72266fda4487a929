// The lines of an httpd configuration that are in force, as httpd would find them.
//
// Include with wildcards, continued lines, Define and ${NAME}, ServerRoot, and the
// sections that hold or don't: <IfModule> by the LoadModule lines above it, <IfDefine>,
// <IfFile>; <IfVersion> and the like are taken to hold. Macros and what a module makes of
// lines of its own are not known. A file within itself, more files than any site has and
// lines that grow without end are faults.
//
// Ownership: the caller's. Threads: one. Files are read, none is changed. Failure: what
// can't be read stands among the faults, and reading goes on.
#pragma once

#include <string>
#include <vector>

namespace ctl {

struct HttpdSection {
  std::string name;      // in lower case, as "location"
  std::string argument;  // without quotes
  std::string where;     // "file:line" of its begin
};

struct HttpdLine {
  std::string name;                    // in lower case
  std::string text;                    // behind it
  std::string where;                   // "file:line"
  std::vector<HttpdSection> sections;  // that it stands in, outermost first

  // The first word of the text, without quotes.
  [[nodiscard]] std::string word() const;
  // The innermost section of that name; null when it stands in none.
  [[nodiscard]] const HttpdSection* within(const std::string& section) const;
};

struct HttpdFault {
  std::string where;
  std::string text;
};

struct HttpdLines {
  std::vector<HttpdLine> lines;
  std::vector<HttpdFault> faults;
};

// What stands in a file. Throws when that can't be read, or isn't a regular file.
[[nodiscard]] std::string readWholeFile(const std::string& file);

// A relative name counts from the working folder. Throws when the file itself can't be
// read.
[[nodiscard]] HttpdLines readHttpdLines(const std::string& file);

}  // namespace ctl
