#include "maptable/choice_question.h"

#include "proxy/counter_board.h"

// Who is drained stands on the board, and is looked up only while anybody is.
void readServers(const proxyList* list, const failedList* failed, ServerState* servers) {
  const bool drains = anyDrained();
  for (std::int32_t i = 0; i < list->count; ++i) {
    const veskProxy* proxy = list->proxies[i];
    servers[i] = {.weight = getProxyWeight(proxy),
                  .replicationId = proxy->balance->replicationId,
                  .inService = isProxyActive(proxy),
                  .failed = failed && hasFailed(*failed, proxy),
                  .drained = drains && isDrained(proxy->place)};
  }
}

// The servers' states are left out: 128 of them cost more to read than a rotation costs.
ChoiceQuestion questionOf(const proxyList* list, const mappingBalance* balance,
                          const char* sessionId) {
  return {.count = list->count,
          .active = list->active,
          .servers = nullptr,
          .drains = anyDrained(),
          .algorithm = balance->algorithm,
          .sticky = balance->sticky != 0,
          .cursor = balance->cursor,
          .weightSums = balance->weightSlots,
          .drawn = kNotDrawn,
          .sessionId = sessionId};
}

void leaveOutDrained(ChoiceQuestion* question, std::uint32_t* active) {
  for (std::int32_t i = 0; i < question->count; ++i)
    active[i] = question->servers[i].drained ? 0 : question->active[i];
  question->active = active;
}
