// Random joins, removals and updates against a second, simpler table.
//
// VESK_MEMBERSHIP_SEED replays one seed, as the failure message shows it.

#include <algorithm>
#include <random>
#include <set>

#include "fake_cluster.h"

using Pairs = std::vector<std::pair<std::string, std::string>>;

constexpr int kSeeds = 24;
constexpr int kStepsPerSeed = 200;

// Patterns by their rank in matching order: equal ranks stay in order of arrival.
struct RankedPattern {
  const char* pattern;
  int rank;
};
constexpr RankedPattern kPatterns[] = {
    {"//h/long*", 0},     {"//h/b*.do", 1}, {"//g/a*", 2}, {"//h/b", 2},
    {"/long/er*.jsp", 3}, {"/long/er*", 4}, {"/abc*", 5},  {"/xyz", 5},
    {"/a*b*", 6},         {"/a*", 7},       {"/b", 7},     {"*.longest*", 8},
    {"*.jsp", 9},         {"*.vhd", 9},     {"*", 10},
};

static int rankOf(const std::string& pattern) {
  for (const RankedPattern& row : kPatterns)
    if (pattern == row.pattern) return row.rank;
  ADD_FAILURE() << pattern;
  return -1;
}

struct ModelEntry {
  std::string name;
  bool active;
};

struct ModelMapping {
  std::string key, value;
  std::vector<ModelEntry> servers;
  bool anyActive;

  ModelEntry* find(const std::string& name) {
    const auto found = std::find_if(servers.begin(), servers.end(),
                                    [&](const ModelEntry& e) { return e.name == name; });
    return found == servers.end() ? nullptr : &*found;
  }
  void count() {
    anyActive = std::any_of(servers.begin(), servers.end(),
                            [](const ModelEntry& entry) { return entry.active; });
  }
};

struct Model {
  std::vector<ModelMapping> mappings;
  ModelMapping master{};  // the servers only
  std::map<std::string, bool> inService;

  ModelMapping* find(const std::string& key) {
    const auto found = std::find_if(mappings.begin(), mappings.end(),
                                    [&](const ModelMapping& m) { return m.key == key; });
    return found == mappings.end() ? nullptr : &*found;
  }

  void insert(const ModelMapping& mapping, bool sorted) {
    auto place = mappings.end();
    while (sorted && place != mappings.begin() &&
           rankOf(mapping.key) < rankOf(std::prev(place)->key))
      --place;
    mappings.insert(place, mapping);
  }

  void join(const std::string& name, const Pairs& served) {
    const bool sorted = mappings.size() > 1;
    for (const auto& [key, value] : served) {
      ModelMapping* mapping = find(key);
      if (!mapping) {
        insert({key, value, {{name, true}}, true}, sorted);
        continue;
      }
      if (mapping->value != value) continue;
      mapping->anyActive = true;
      ModelEntry* entry = mapping->find(name);
      if (entry)
        entry->active = inService[name] = true;
      else
        mapping->servers.push_back({name, true});
    }
    ModelEntry* server = master.find(name);
    if (server)
      server->active = true;
    else
      master.servers.push_back({name, true});
  }

  void remove(const std::string& name) {
    for (ModelMapping& mapping : mappings) {
      if (ModelEntry* entry = mapping.find(name)) entry->active = inService[name] = false;
      mapping.count();
    }
    master.find(name)->active = false;
  }

  void update(const std::string& name, const Pairs& served) {
    std::set<std::string> keys;
    for (const auto& [key, value] : served) {
      keys.insert(key);
      ModelMapping* mapping = find(key);
      if (!mapping) {
        insert({key, value, {{name, true}}, inService[name]}, false);
        continue;
      }
      mapping->value = value;
      ModelEntry* entry = mapping->find(name);
      if (entry) entry->active = inService[name];
      mapping->count();
      if (!entry) mapping->servers.push_back({name, true});
    }
    for (ModelMapping& mapping : mappings) {
      if (keys.count(mapping.key)) continue;
      if (ModelEntry* entry = mapping.find(name)) entry->active = false;
      mapping.count();
    }
  }
};

class MembershipModel : public MapTable {
 protected:
  int below(int bound) {
    return static_cast<int>(random() % static_cast<unsigned>(bound));
  }

  static std::string textOf(const Pairs& pairs) {
    std::string text;
    for (const auto& [key, value] : pairs) text += key + "=" + value + "\n";
    return text;
  }

  // Some of the patterns in matching order, a few with another target.
  Pairs somePairs() {
    Pairs pairs;
    for (const RankedPattern& row : kPatterns)
      if (below(3) == 0) pairs.emplace_back(row.pattern, below(8) ? "one" : "two");
    if (pairs.empty()) pairs.emplace_back("*", "one");
    return pairs;
  }

  void step() {
    const std::string name = std::to_string(below(9)) + ":1";
    const std::int32_t at = hasProxyNamed(table, name.c_str());
    if (at < 0) {
      const Pairs pairs = somePairs();
      model.inService[name] = true;
      join(name, textOf(pairs).c_str());
      served[name] = pairs;
      model.join(name, pairs);
      return;
    }
    act(below(5), name, table->masterList.proxies[at]);
  }

  void act(int action, const std::string& name, veskProxy* proxy) {
    if (action == 0) {
      removeProxy(table, proxy, t.req, 1);
      model.remove(name);
    } else if (action == 1) {
      setProxyActive(proxy, false);  // as the pool does
      model.inService[name] = false;
    } else if (action < 4) {
      served[name] = somePairs();
      update(proxy, textOf(served[name]));
      model.update(name, served[name]);
    } else {
      addProxy(table, proxy, t.req, 1);
      model.join(name, served[name]);
    }
  }

  static void checkList(const proxyList& list, const ModelMapping& expected) {
    ASSERT_EQ(static_cast<std::size_t>(list.count), expected.servers.size());
    std::set<std::string> once;
    for (std::int32_t i = 0; i < list.count; ++i) {
      const ModelEntry& entry = expected.servers[static_cast<std::size_t>(i)];
      EXPECT_EQ(list.proxies[i]->name, entry.name);
      EXPECT_EQ(list.active[i] != 0, entry.active);
      EXPECT_TRUE(once.insert(entry.name).second) << "twice: " << entry.name;
    }
  }

  void checkMapping(std::int32_t index, const ModelMapping& expected) {
    const property& pair = table->mappings->entries[index];
    SCOPED_TRACE(pair.key);
    ASSERT_EQ(pair.key, expected.key);
    EXPECT_EQ(pair.value, expected.value);
    ASSERT_TRUE(table->mappingProxies[index] && table->mappingBalances[index]);
    EXPECT_GE(table->mappingProxies[index]->count, 1);
    EXPECT_EQ(table->mappingBalances[index]->anyActive != 0, expected.anyActive);
    checkList(*table->mappingProxies[index], expected);
  }

  void check() {
    const auto count = static_cast<std::int32_t>(model.mappings.size());
    ASSERT_EQ(table->mappings->count, count);
    EXPECT_EQ(table->lastMapping, count - 1);
    for (std::int32_t i = 0; i < count; ++i)
      checkMapping(i, model.mappings[static_cast<std::size_t>(i)]);
    EXPECT_EQ(table->mappingProxies[count], nullptr);
    checkList(table->masterList, model.master);
    for (std::int32_t i = 0; i < table->masterList.count; ++i)
      EXPECT_EQ(isProxyActive(table->masterList.proxies[i]),
                model.inService[table->masterList.proxies[i]->name]);
    EXPECT_EQ(isClustered(table), table->masterList.count > 1);
  }

  void run(unsigned seed) {
    SCOPED_TRACE("VESK_MEMBERSHIP_SEED=" + std::to_string(seed));
    random.seed(seed);
    model = Model{};
    served.clear();
    makeTable(nullptr, nullptr);
    for (int i = 0; i < kStepsPerSeed && !HasFailure(); ++i) {
      step();
      check();
    }
  }

  std::mt19937 random;
  Model model;
  std::map<std::string, Pairs> served;
};

TEST_F(MembershipModel, agreesAfterEveryStep) {
  if (const char* seed = std::getenv("VESK_MEMBERSHIP_SEED")) {
    run(static_cast<unsigned>(std::strtoul(seed, nullptr, 10)));
    return;
  }
  const unsigned first = std::random_device{}();
  for (unsigned i = 0; i < kSeeds && !HasFailure(); ++i) run(first + i);
}
