// The functions that the host brings along for its configuration.
//
// Threads: loadModules while the configuration is read; the others from any
// thread. Errors: REQ_ABORTED; an Init function leaves the reason in its
// parameter block under "error".
#pragma once

#include <string>

#include "layer/directive.h"
#include "nsapi.h"

namespace host {

// Init fn="load-modules" shlib="FILE" funcs="NAME,NAME...": loads a shared
// object, for good or until unloadModules, and registers its functions.
int loadModules(pblock* pb, Session* sn, Request* rq);

// Unloads what load-modules has loaded. REQUIRES: nobody can call a function of a
// module any more.
void unloadModules();

// NameTrans fn="document-root" root="FOLDER" index="NAME NAME...": sets `ppath`
// and `path` to the root followed by the URI, and `ntrans-base` to the root. A
// URI that ends in a slash gets the first existing index file behind it.
int documentRoot(pblock* pb, Session* sn, Request* rq);

// ObjectType fn="force-type" type="TYPE": sets the response's content type.
int forceType(pblock* pb, Session* sn, Request* rq);

// Makes `root` of a document-root line absolute and gives it `indexNames`,
// where it has none of its own. A text is the reason why the line is wrong.
[[nodiscard]] std::string completeDocumentRoot(Directive* directive,
                                               const std::string& indexNames);

// The absolute form of a path, without a closing slash, if it is a folder; else
// empty.
[[nodiscard]] std::string absoluteFolder(const std::string& path);

}  // namespace host
