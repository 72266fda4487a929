#include "maptable/choice_question.h"

void readServers(const proxyList* list, const failedList* failed, ServerState* servers) {
  for (std::int32_t i = 0; i < list->count; ++i) {
    const veskProxy* proxy = list->proxies[i];
    servers[i] = {.weight = getProxyWeight(proxy),
                  .replicationId = proxy->balance->replicationId,
                  .inService = isProxyActive(proxy),
                  .failed = failed && hasFailed(*failed, proxy)};
  }
}

// The servers' states are left out: 128 of them cost more to read than a rotation costs.
ChoiceQuestion questionOf(const proxyList* list, const mappingBalance* balance,
                          const char* sessionId) {
  return {.count = list->count,
          .active = list->active,
          .servers = nullptr,
          .algorithm = balance->algorithm,
          .sticky = balance->sticky != 0,
          .cursor = balance->cursor,
          .weightSums = balance->weightSlots,
          .drawn = kNotDrawn,
          .sessionId = sessionId};
}
