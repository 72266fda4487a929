#include "properties/property_expansion.h"

#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "context/memory.h"

// One call from outside, with all the levels below it.
struct Expansion {
  const propertyTable* table;
  const propertyTable* defaults;
  const propertyTable* serverRoots;
  const char* serverName;
  bool serverVariables;      // whether the names of the server are reserved
  std::int32_t depth;        // levels that are open
  std::int32_t lookupsLeft;  // at all levels together
  bool outOfMemory;
};

std::int32_t find_variable(const char* text, const char** start, const char** end) {
  const char* opening = std::strchr(text, '{');
  if (!opening) return 0;
  *start = opening;
  *end = std::strchr(opening, '}');
  return *end ? 1 : 0;
}

static char* expandValue(Expansion* expansion, const char* value);

// "{default}" asks for the default by name; without defaults it stands for itself.
static const char* findValue(const Expansion* expansion, const char* key) {
  const char* value = getPropertyValue(expansion->table, key);
  const bool asksForDefault = !value || std::strcmp(value, "{default}") == 0;
  if (asksForDefault && expansion->defaults)
    return getPropertyValue(expansion->defaults, key);
  return value;
}

static char* expandedProperty(Expansion* expansion, const char* key) {
  const char* value = findValue(expansion, key);
  return value ? expandValue(expansion, value) : nullptr;
}

// A copy of a text that is used unchanged; null for null or without memory.
static char* copyUnchanged(Expansion* expansion, const char* text) {
  if (!text) return nullptr;
  char* copy = doStrdup(nullptr, text);
  if (!copy) expansion->outOfMemory = true;
  return copy;
}

// The text that a reference stands for, new; null when it stands for nothing.
static char* resolve(Expansion* expansion, const char* name) {
  // Counted at every level alike: values that refer to each other in width cost as much
  // as those that do so in depth.
  --expansion->lookupsLeft;
  // The reserved names come first: a property of such a name must not hide the server's
  // own.
  if (expansion->serverVariables && std::strcmp(name, "vesk.server.rootdir") == 0) {
    if (!expansion->serverName) return nullptr;
    return copyUnchanged(expansion,
                         getPropertyValue(expansion->serverRoots, expansion->serverName));
  }
  if (expansion->serverVariables && std::strcmp(name, "vesk.server.name") == 0)
    return copyUnchanged(expansion, expansion->serverName);
  return expandedProperty(expansion, name);
}

// Head, value and tail in a new text. A value that makes it too long is left out.
static char* joined(Expansion* expansion, const char* head, const char* value,
                    const char* tail) {
  const std::size_t outer = std::strlen(head) + std::strlen(tail);
  std::size_t length = outer + std::strlen(value);
  if (length > kMaxExpandedLength) {
    value = "";
    length = outer;
  }
  // Expansion runs outside any request: the heap's own allocator, and its int.
  char* text = nullptr;
  if (length < INT_MAX)
    text = static_cast<char*>(doMalloc(nullptr, static_cast<std::int32_t>(length + 1)));
  if (!text) {
    expansion->outOfMemory = true;
    return nullptr;
  }
  (void)std::snprintf(text, length + 1, "%s%s%s", head, value, tail);
  return text;
}

// Replaces the first reference, whose braces lie at `start` and `end`. Takes over
// `text` and gives the new one, or null without memory.
static char* replaceReference(Expansion* expansion, char* text, std::ptrdiff_t start,
                              std::ptrdiff_t end) {
  text[start] = '\0';
  text[end] = '\0';
  char* value = resolve(expansion, text + start + 1);
  char* replaced = nullptr;
  if (!expansion->outOfMemory)
    // The two NULs have cut the text into head, name and tail.
    replaced = joined(expansion, text, value ? value : "", text + end + 1);
  doFree(nullptr, value);
  doFree(nullptr, text);
  return replaced;
}

// Removes all references at once: what is left to do once no more are looked up.
// The text before a reference holds no '{', so one walk finds them all.
static void removeReferences(char* text) {
  char* out = text;
  const char* start = nullptr;
  const char* end = nullptr;
  const char* in = text;
  while (find_variable(in, &start, &end)) {
    const auto before = static_cast<std::size_t>(start - in);
    std::memmove(out, in, before);
    out += before;
    in = end + 1;
  }
  std::memmove(out, in, std::strlen(in) + 1);
}

static char* expandReferences(Expansion* expansion, char* text) {
  const char* start = nullptr;
  const char* end = nullptr;
  while (text && find_variable(text, &start, &end)) {
    // Past a limit the references go and the text stays: a setting that can't be expanded
    // in full is still better than none.
    if (expansion->lookupsLeft == 0 || expansion->depth > kMaxExpansionDepth) {
      removeReferences(text);
      return text;
    }
    text = replaceReference(expansion, text, start - text, end - text);
  }
  return text;
}

static char* expandValue(Expansion* expansion, const char* value) {
  char* text = copyUnchanged(expansion, value ? value : "");
  // The depth counts what is open and not what was: siblings don't add up.
  ++expansion->depth;
  text = expandReferences(expansion, text);
  --expansion->depth;
  return text;
}

// The limits are counted per call from outside, so that no value can use up another's.
static Expansion plainExpansion(const propertyTable* table,
                                const propertyTable* defaults) {
  return {.table = table,
          .defaults = defaults,
          .serverRoots = nullptr,
          .serverName = nullptr,
          .serverVariables = false,
          .depth = 0,
          .lookupsLeft = kMaxExpansionLookups,
          .outOfMemory = false};
}

static Expansion serverExpansion(const propertyTable* table,
                                 const propertyTable* defaults,
                                 const propertyTable* serverRoots,
                                 const char* serverName) {
  Expansion expansion = plainExpansion(table, defaults);
  expansion.serverRoots = serverRoots;
  expansion.serverName = serverName;
  expansion.serverVariables = true;
  return expansion;
}

char* expand_vars(const char* value, const propertyTable* table,
                  const propertyTable* defaults) {
  Expansion expansion = plainExpansion(table, defaults);
  return expandValue(&expansion, value);
}

char* expand_vars2(const char* value, const propertyTable* table,
                   const propertyTable* defaults, const propertyTable* serverRoots,
                   const char* serverName) {
  Expansion expansion = serverExpansion(table, defaults, serverRoots, serverName);
  return expandValue(&expansion, value);
}

char* getPropertyValue2(const propertyTable* table, const propertyTable* defaults,
                        const char* key) {
  Expansion expansion = plainExpansion(table, defaults);
  return expandedProperty(&expansion, key);
}

char* getPropertyValue3(const propertyTable* table, const propertyTable* defaults,
                        const propertyTable* serverRoots, const char* key,
                        const char* serverName) {
  Expansion expansion = serverExpansion(table, defaults, serverRoots, serverName);
  return expandedProperty(&expansion, key);
}
