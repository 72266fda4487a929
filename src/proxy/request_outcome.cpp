#include "proxy/request_outcome.h"

#include <cerrno>
#include <cstring>

#include "context/vesk_error.h"

// The letters are for logs that are counted by machines: few, and stable whatever errno
// value a kernel chooses.
static char causeOf(std::int32_t error) {
  switch (error) {
    case ECONNREFUSED:
    case EHOSTUNREACH:
    case EHOSTDOWN:
    case ENETUNREACH:
      return 'R';
    case ETIMEDOUT:
      return 'T';
    case ECONNRESET:
    case EPIPE:
      return 'X';
    case EVESK_BUSY:
      return 'B';
    case EVESK_PROTOCOL:
    case 0:  // a word that is no command leaves no error
      return 'P';
    case EVESK_CLIENT_DOWN:
      return 'C';
    case ENOBUFS:
      return 'M';
    default:
      return 'O';
  }
}

void beginOutcome(vesk_request* req, const veskProxy* proxy) {
  veskOutcome* outcome = &req->outcome;
  static_assert(sizeof outcome->server == sizeof proxy->name);
  std::memcpy(outcome->server, proxy->name, sizeof proxy->name);
  ++outcome->attempts;
  outcome->kind = kOutcomeUnknown;  // how the one before ended counts no longer
  noteStage(req, kStageConnect);
}

// A response that ends broken has been noted where that was decided, and stays so. And an
// answer that the browser didn't take was not served, whatever the server thinks.
void endOutcome(vesk_request* req, bool served, std::int64_t micros) {
  veskOutcome* outcome = &req->outcome;
  // What failed attempts took counts as well: it is time that the browser has waited.
  outcome->micros += micros;
  const bool taken =
      served && req->lastError != EVESK_CLIENT_DOWN && outcome->kind != kOutcomeBroken;
  // What was served and not taken is the browser's doing, whatever stands in lastError.
  outcome->state[1] = taken ? '-' : causeOf(served ? EVESK_CLIENT_DOWN : req->lastError);
  if (taken) {
    outcome->kind = kOutcomeServed;
  } else if (served) {
    outcome->kind = kOutcomeBroken;
  } else if (outcome->kind != kOutcomeBroken) {
    outcome->kind = kOutcomeFailed;
  }
}
