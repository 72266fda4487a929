#include "status/status_action.h"

#include <cstring>

#include "context/events.h"
#include "proxy/counter_board.h"
#include "status/query_text.h"

// Takes as long for each wrong token.
static bool isToken(const char* given, const char* right) {
  unsigned difference = 0;
  for (std::int32_t i = 0; i < kBoardTokenSize; ++i)
    difference |= static_cast<unsigned>(given[i] ^ right[i]);
  return difference == 0;
}

static bool hasToken(std::string_view form, counterBoard* board) {
  char given[kBoardTokenSize] = "";
  char right[kBoardTokenSize] = "";
  return readQuery(form, "token", given, sizeof given) && getBoardToken(board, right) &&
         isToken(given, right);
}

static void tell(vesk_request* req, const char* server, bool drained,
                 const char* client) {
  EventText line;
  clearText(&line);
  addText(&line, "vesk server ");
  addPeerText(&line, server);
  addText(&line, drained ? " DRAINED by " : " PUT BACK by ");
  addPeerText(&line, client);
  if (eventsOn())
    reportEvent(req, EventKind::operation, server, line);
  else
    req->log(req, "%s", line.text);
}

ActionResult applyAction(vesk_request* req, std::string_view form, const char* client) {
  char name[kBoardNameSize] = "";
  char action[16] = "";
  counterBoard* board = getBoard();
  if (!board || !hasToken(form, board)) return ActionResult::forbidden;
  if (!readQuery(form, "server", name, sizeof name) ||
      !readQuery(form, "action", action, sizeof action))
    return ActionResult::unknown;
  boardServer* server = knownBoardServer(name);
  const bool drain = std::strcmp(action, "drain") == 0;
  if (!server || (!drain && std::strcmp(action, "ready") != 0))
    return ActionResult::unknown;
  if (setDrained(board, server, drain)) tell(req, name, drain, client);
  return ActionResult::done;
}
