// The functions that the host brings along for its configuration:
//
//   Init       fn="load-modules"  shlib="FILE" funcs="NAME,NAME..."
//   NameTrans  fn="document-root" root="FOLDER" index="NAME NAME..."
//   ObjectType fn="force-type"    type="TYPE" suffix=".SUFFIX .SUFFIX..."
//
// load-modules loads a shared object and registers its functions. document-root
// sets `ppath` and `path` to the root followed by the URI, and `ntrans-base` to
// the root; a URI that ends in a slash gets the first existing index file behind
// it. force-type sets the response's content type, where there is none; with
// `suffix`, only for a path that ends in one of these, in any case of letters and
// with or without its path parameters.
//
// Ownership: the table is constant. Threads: while the configuration is read,
// one; findFunction and what it gives, any.
// Errors: a text for the person who wrote the line; empty for success. The
// functions themselves give REQ_ABORTED; load-modules leaves the reason in its
// parameter block under "error".
#pragma once

#include <string>
#include <string_view>

#include "layer/directive.h"
#include "nsapi.h"

namespace host {

struct Builtin {
  std::string_view name;  // with dashes, as messages show it
  FuncPtr function;
  // True: stands in Init alone, and runs as soon as its line has been read, since
  // the lines behind it need what it brings. False: stands anywhere but in Init.
  bool runsWhenRead;
  const char* path;      // the parameter that is a path, or null
  const char* needs[2];  // parameters that its line must have; null: no more
};

// The function of that name, or null. A plug-in's hides a built-in one.
[[nodiscard]] FuncPtr findFunction(std::string_view name);

// The function that a line names, or null.
[[nodiscard]] FuncPtr functionOf(const Directive& directive);

// The row of a built-in function; null for any other, and for null.
[[nodiscard]] const Builtin* builtinOf(FuncPtr function);

// Why a built-in function can't stand on its line; a plug-in judges its own.
[[nodiscard]] std::string misuseOf(const Builtin& builtin, const Directive& directive,
                                   bool inInit);

// Makes `root` of a document-root line absolute and gives it `indexNames`, where
// it has none of its own; other lines stay as they are.
[[nodiscard]] std::string completeBuiltin(Directive* directive,
                                          const std::string& indexNames);

// The absolute form of a path, without a closing slash, if it is a folder; else
// empty.
[[nodiscard]] std::string absoluteFolder(const std::string& path);

// The path that NameTrans functions have left among a request's variables, or
// null.
[[nodiscard]] char* pathOf(pblock* vars);

}  // namespace host
