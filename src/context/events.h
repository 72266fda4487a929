// Event lines: what an operator is told when something changes, with the option `events`.
//
// One line a change, through `log` of the request that met it, and at most one a second
// about the same thing. What comes in between is held: the newest replaces the one
// before, and is written when the second is over, by whoever looks next, with the number
// of those that it has replaced. So the last line about a thing tells how it stands. What
// was written is kept in a journal of the last 256.
//
// Ownership: the journal is the module's own, from openEvents to closeEvents.
// Threads: any. One mutex of its own comes last of all locks; nothing is taken under it,
// and no line is written. The good road of a request is one relaxed load.
// Failure: without memory for the journal there are no lines. Where more than 256 things
// change within a second the rest is counted, and the count told.
#pragma once

#include <cstdint>
#include <type_traits>

#include "context/event_text.h"
#include "context/vesk_request.h"

constexpr std::int32_t kJournalSize = 256;  // lines

// What a line is about; with its subject, the "same thing".
enum class EventKind : std::int32_t {
  server,     // state of a server
  cluster,    // the list of servers
  mappings,   // what a server serves
  request,    // requests that failed, by the last server asked
  operation,  // what an operator has done to a server
  busy,       // requests that wait for a server's answer about itself
  leftOut,    // lines that found no room
};

// One line of the journal.
struct veskEvent {
  std::int64_t time;  // seconds since the epoch, when it was written
  char text[kEventTextSize];
};
static_assert(std::is_trivial_v<veskEvent> && std::is_standard_layout_v<veskEvent>);

// Switches the lines on, with an empty journal. Called before the first request.
void openEvents(vesk_request* req);
// Switches them off and frees the journal. What is still held is written before.
void closeEvents(vesk_request* req);

// Whether lines are written: ask before making the text of one. Relaxed.
[[nodiscard]] bool eventsOn();

// Writes a line about a subject, which may be empty, or holds it back.
void reportEvent(vesk_request* req, EventKind kind, const char* subject,
                 const EventText& line);

// Whether a line about a subject would be held back now: for who can rather wait, and
// tell more in one line then.
[[nodiscard]] bool isHeldBack(vesk_request* req, EventKind kind, const char* subject);

// Whether a request has any reason to look: one relaxed load. Who has a reason of its own
// counts it in, and out again.
[[nodiscard]] bool eventsWait();
void countEventsWaiting(std::int32_t more);
// Writes the held lines whose second is over.
void lookAtEvents(vesk_request* req);

// Copies the newest lines of the journal, `room` at most, oldest first: how many.
[[nodiscard]] std::int32_t copyEvents(veskEvent* events, std::int32_t room);
