// What the result of a stage means: for the web server, and for the browser.
//
// Every web server that puts the layer on asks these, so that the same plug-in
// does the same thing in each of them. They know no connection and no record:
// what they judge by is handed in, and what they find is a value.
//
// Pure functions: any thread, no lock, no memory.
#pragma once

#include <cstdint>

namespace host {

// --- a stage ------------------------------------------------------------------

enum class StageVerdict {
  declined,  // no function did anything
  done,      // a function did its work
  failed,    // the request is at its end; no further stage runs
};

// The verdict on what a stage of a request gave.
[[nodiscard]] StageVerdict judgeStage(int result);

// True when what an Init function gave means that the server can't start.
[[nodiscard]] bool initFails(int result);

// --- the answer ---------------------------------------------------------------

// How the stages left the request. The last three count once a response was started.
struct ServiceEnd {
  int result;                     // of the last stage that ran
  bool responseStarted = false;   // its head has been given to the web server
  bool hasBody = false;           // false: it answers HEAD, or is a 204 or 304
  std::int64_t missing = -1;      // bytes of its content-length; below 0: it has none
  const char* outcome = nullptr;  // what the plug-in calls its end; null: nothing
};

enum class Answer {
  none,     // nobody took the request: the web server's own means go on
  failure,  // the page about a failure; nothing of a response was sent
  bare,     // a head alone, which is still to be started
  whole,    // the response ends properly, and the connection may be kept
  broken,   // the response is cut without its end, so that the browser notices
  unknown,  // the response ends properly, and the connection with it
};

// What the browser gets once the stages have run.
[[nodiscard]] Answer judgeService(const ServiceEnd& end);

// True when a head that is about to leave must say that the connection ends with its
// response: the plug-in has said by now what makes its end unknown.
[[nodiscard]] bool announcesClose(const char* outcome, bool hasLength);

// True when a response is the plug-in's own word that no server has answered.
[[nodiscard]] bool isNoServersAnswer(const char* outcome);

// True when a stage wants the connection to end with this request.
[[nodiscard]] bool endsConnection(int result);

// --- what the answer shows ----------------------------------------------------

// The status line of the page about a failure.
struct FailureHead {
  bool recorded;  // the plug-in's, and with it the headers that it has set
  int status;
  const char* reason;  // null: the usual one
};

// Made of what a plug-in has recorded: a status of 0 when it has recorded none.
[[nodiscard]] FailureHead failureHead(int status, const char* reason);

// True for a content type that only steers a request to its Service function;
// no browser may see it. A null type is none.
[[nodiscard]] bool isInternalType(const char* type);

}  // namespace host
