// The entry points over a table whose operations are the test's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <tuple>

#include "context/guards.h"
#include "failing_host.h"
#include "layer/restart_callbacks.h"
#include "maptable/vesk_maptable_impl.h"
#include "nsapi/extension.h"
#include "nsapi/nsapi_request.h"
#include "nsapi/response_path.h"

// What the table plays, and what it was asked.
static struct {
  std::int32_t initResult, filterResult, serveResult;
  std::int32_t serveStatus;  // set through the record when above 0
  bool responds;
  veskOutcome outcome;
  std::int64_t deadline;         // what the record had, in milliseconds from then
  std::string filtered, served;  // what the record holds, and the other arguments
} play;

static std::int32_t playFilter(mappingsTable*, vesk_request* req, std::uint32_t honour) {
  play.filtered = std::string(req->uri) + " " + req->path + std::to_string(honour);
  return play.filterResult;
}

static std::int32_t playServe(mappingsTable* /*table*/, vesk_request* req,
                              const char* extra, std::int32_t index) {
  EXPECT_EQ(extra, nullptr);
  EXPECT_EQ(req->hasPostData, 1);
  play.served = std::string(req->uri) + " " + std::to_string(index);
  for (int i = 0; req->headerNames[i]; ++i)
    play.served.append(" ").append(req->headerNames[i]) +=
        std::string("=\"") + req->headerValues[i] + "\"";
  (void)req->getAttributeNames(req);
  for (const veskAttribute* node = req->attributes; node; node = node->next) {
    const auto size = static_cast<std::size_t>(node->size);
    play.served.append(" ").append(node->name) += "=";
    play.served.append(static_cast<const char*>(node->value), size);
  }
  if (play.serveStatus > 0) req->setStatus(req, play.serveStatus, "Served");
  if (play.responds) req->responseStarted = 1;
  req->outcome = play.outcome;
  play.deadline = req->deadline == 0 ? 0 : req->deadline - req->ticks(req);
  return play.serveResult;
}

class Stages : public testing::Test {
 protected:
  explicit Stages() {
    play = {};
    table.initTable = [](mappingsTable*, vesk_request*) { return play.initResult; };
    table.filterRequest = playFilter;
    table.handleRequestWithIndex = playServe;
    setMappingsTable(&table);
    veskNSAPIVerbose = 1;
    set(host.request.reqpb, "uri", "/app/");
    set(host.request.vars, "path", "/docs/app/index.jsp");
    set(host.request.vars, "ntrans-base", "/docs");
  }
  ~Stages() override {
    setMappingsTable(nullptr);
    veskNSAPIVerbose = 0;
    errorUrl = nullptr;
  }
  static void set(pblock* block, const char* name, const char* value) {
    FailingHost::set(block, name, value);
  }
  int filter() {
    return veskfilter(nullptr, &host.request.session, &host.request);
  }
  int service(const char* type) {
    set(host.request.srvhdrs, "content-type", type);
    return veskservice(nullptr, &host.request.session, &host.request);
  }
  // What the filter stage leaves for the next one.
  std::string marks() {
    return FailingHost::get(host.request.reqpb, "uri") + " " +
           FailingHost::get(host.request.vars, "vesk-proxy-target") + " " +
           FailingHost::get(host.request.srvhdrs, "content-type");
  }
  FailingHost host;
  mappingsTable table{};
};

TEST_F(Stages, filterMarksWhatIsTheBackends) {
  set(host.request.srvhdrs, "content-type", "text/html");
  play.filterResult = 12;
  EXPECT_EQ(filter(), REQ_NOACTION);
  EXPECT_EQ(play.filtered, "/app/ /docs/app/index.jsp1");
  EXPECT_EQ(marks(), "/app/index.jsp 12 vesk-internal/target");

  set(host.request.srvhdrs, "content-type", nullptr);
  set(host.request.vars, "ppath", "/real/i.jsp");
  EXPECT_EQ(filter(), REQ_NOACTION);
  EXPECT_EQ(play.filtered, "/app/index.jsp /real/i.jsp1") << "the physical path first";
}

// Whatever the host can't put into its blocks, it must not be left with a request
// that it would answer by itself.
TEST_F(Stages, filterRefusesWhatTheHostCannotMark) {
  // The insertion that fails, whether all behind it do, and what comes of it.
  const std::tuple<int, bool, int, const char*> rows[] = {
      {1, false, REQ_NOACTION, "/app/ 0 vesk-internal/target"},
      {1, true, REQ_ABORTED, "- - -"},
      {2, false, REQ_ABORTED, "/app/index.jsp - vesk-internal/target"},
      {3, false, REQ_ABORTED, "/app/index.jsp 0 -"},
      {4, false, REQ_NOACTION, "/app/index.jsp 0 vesk-internal/target"},
  };
  for (const bool inFront : {false, true}) {
    host.insertsInFront = inFront;
    for (const auto& [failing, forGood, result, left] : rows) {
      set(host.request.reqpb, "uri", "/app/");
      set(host.request.vars, "vesk-proxy-target", nullptr);
      set(host.request.srvhdrs, "content-type", "text/html");
      host.request.status_num = 0;
      host.failInsertion = failing;
      host.failsForGood = forGood;
      EXPECT_EQ(filter(), result) << failing;
      EXPECT_EQ(marks(), left) << failing;
      EXPECT_EQ(host.request.status_num, result == REQ_ABORTED ? 500 : 0) << failing;
    }
  }
}

TEST_F(Stages, filterLeavesEverythingElseUntouched) {
  // Content type and URI, or null; whether there is a table; what it says.
  const std::tuple<const char*, const char*, bool, int, int, const char*> rows[] = {
      {"vesk-internal/ext", "/app/", true, 0, 3, "typed already"},
      {nullptr, "/app/", false, 0, 3, "no table"},
      {nullptr, "/app/", true, -1, 3, "no server"},
      {nullptr, nullptr, true, 0, 3, "no URI"},
      {nullptr, "/app/", true, 0, -1, "no match"},
  };
  for (const auto& [type, uri, hasTable, init, index, why] : rows) {
    setMappingsTable(hasTable ? &table : nullptr);
    play.initResult = init;
    play.filterResult = index;
    set(host.request.srvhdrs, "content-type", type);
    set(host.request.reqpb, "uri", uri);
    EXPECT_EQ(filter(), REQ_NOACTION) << why;
    EXPECT_EQ(FailingHost::get(host.request.srvhdrs, "content-type"), type ? type : "-")
        << why;
    EXPECT_EQ(FailingHost::get(host.request.reqpb, "uri"), uri ? uri : "-") << why;
    EXPECT_EQ(FailingHost::get(host.request.vars, "vesk-proxy-target"), "-") << why;
  }
}

TEST_F(Stages, serviceForwardsHeadersAndTheStoredTarget) {
  // A host may hash names: three buckets here, one of them empty.
  for (const char* name : {"b", "a"}) set(host.request.headers, name, "1");
  set(host.request.session.client, "cc", "1");
  pb_entry* buckets[] = {host.request.headers->ht[0], nullptr,
                         host.request.session.client->ht[0]};
  pblock hashed{3, buckets};
  host.request.headers = &hashed;
  for (const auto& [text, index] : {std::pair{"7", "7"},
                                    {"9999999999", "2147483647"},
                                    {"-9999999999", "-2147483648"},
                                    {"abc", "0"}}) {
    set(host.request.vars, "vesk-proxy-target", text);
    EXPECT_EQ(service("vesk-internal/target"), REQ_PROCEED);
    EXPECT_EQ(play.served, "/app/ " + std::string(index) + " b=\"1\" a=\"1\" cc=\"1\"");
  }
  EXPECT_EQ(FailingHost::get(host.request.srvhdrs, "content-type"), "-");
}

TEST_F(Stages, serviceRefusesWhatItCannotForward) {
  // Type, URI or null, whether there is a table, what it says.
  const std::tuple<const char*, const char*, bool, int, int, const char*> rows[] = {
      {"text/html", "/a", true, 0, 0, nullptr},
      {"VESK-INTERNAL/x", "/a", true, 0, 0, nullptr},
      {"vesk-internal/ext", "/a", true, 0, 503,
       "Could not connect to Vesk server or invalid web server configuration for Vesk."},
      {"vesk-internal/x", "/../a", true, 0, 403,
       "Requested URI contains insecure path characters."},
      {"vesk-internal/x", nullptr, true, 0, 400, "Request has no URI."},
      {"vesk-internal/x", "/a", false, 0, 503, "Internal error, no Vesk mapping table."},
      {"vesk-internal/x", "/a", true, -1, 503, "Can not connect to Vesk server."},
  };
  for (const auto& [type, uri, hasTable, init, status, reason] : rows) {
    host.request.status_num = 0;
    host.request.reason = nullptr;
    play.initResult = init;
    setMappingsTable(hasTable ? &table : nullptr);
    set(host.request.reqpb, "uri", uri);
    EXPECT_EQ(service(type), status ? REQ_ABORTED : REQ_NOACTION) << type;
    EXPECT_EQ(host.request.status_num, status);
    EXPECT_STREQ(host.request.reason, reason);
    EXPECT_EQ(play.served, "");
  }
  EXPECT_EQ(host.client.logged("veskservice: evil uri \"/../a\" ignored"), 1);
}

TEST_F(Stages, serviceResultFollowsOutcomeAndStatus) {
  const std::tuple<std::int32_t, bool, int, int, const char*> rows[] = {
      {kRequestServed, true, 404, REQ_ABORTED, "served with an error status"},
      {kRequestNotOurs, false, 0, REQ_NOACTION, "not for the backend"},
      {kRequestNotOurs, false, 400, REQ_ABORTED, "the status has the last word"},
      {kRequestFailed, false, 0, REQ_ABORTED, "failed, nothing written"},
      {kRequestFailed, true, 399, REQ_PROCEED, "failed after a part went out"},
      {kRequestFailed, true, 503, REQ_ABORTED, "failed with a page"},
  };
  for (const auto& [outcome, responds, status, result, why] : rows) {
    host.request.status_num = 0;
    play.serveResult = outcome;
    play.responds = responds;
    play.serveStatus = status;
    EXPECT_EQ(service("vesk-internal/x"), result) << why;
    const std::string line = std::to_string(status) + " and req status ";
    EXPECT_EQ(host.client.logged("return status " + line + std::to_string(result)), 1)
        << why;
  }
  errorUrl = "/sorry";
  EXPECT_EQ(service("vesk-internal/x"), REQ_PROCEED) << "a page turned into a redirect";
}

TEST_F(Stages, statusPageIsForItsPathAndForWhoMaySeeIt) {
  // Client, URI, path and from on the line; the result and its status.
  const std::tuple<const char*, const char*, const char*, const char*, int, int> rows[] =
      {
          {"127.0.0.1", "/s", "/s", "local", REQ_PROCEED, 200},
          {"127.9.9.9", "/s/explain", "/s", "local", REQ_PROCEED, 200},
          {"::1", "/s/", "/s", "local", REQ_PROCEED, 200},
          {"::1", "/s", "/s/", "local", REQ_PROCEED, 200},
          {"::1", "/s/explain", "/s/", "local", REQ_PROCEED, 200},
          {"::1", "/", "/", "local", REQ_PROCEED, 200},
          {"::1", "/explain", "/", "local", REQ_PROCEED, 200},
          {"::ffff:127.0.0.1", "/any", nullptr, "local", REQ_PROCEED, 200},
          {"10.0.0.1", "/s", "/s", nullptr, REQ_PROCEED, 200},
          {"10.127.0.1", "/s", "/s", "local", REQ_ABORTED, kForbidden},
          {"::ffff:10.0.0.1", "/s/explain", nullptr, "local", REQ_ABORTED, kForbidden},
          {"1270.0.0.1", "/s", "/s", "local", REQ_ABORTED, kForbidden},
          {nullptr, "/s", "/s", "local", REQ_ABORTED, kForbidden},
          {"127.0.0.1", "/s", "/s", "Local", REQ_ABORTED, kForbidden},
          {"127.0.0.1", "/sx", "/s", "local", REQ_NOACTION, 0},
          {"127.0.0.1", "/sx/", "/s", "local", REQ_NOACTION, 0},
          {"127.0.0.1", "/s/x", "/s", "local", REQ_NOACTION, 0},
          {"127.0.0.1", "/x/", "/", "local", REQ_NOACTION, 0},
          {"127.0.0.1", "/x", "", "local", REQ_NOACTION, 0},
          {"10.0.0.1", "/x/s", "/s", "local", REQ_NOACTION, 0},
      };
  for (const auto& [client, uri, path, from, result, status] : rows) {
    pblock* line = host.request.headers;
    set(line, "report", "status");
    set(line, "path", path);
    set(line, "from", from);
    set(host.request.session.client, "ip", client);
    set(host.request.reqpb, "uri", uri);
    set(host.request.reqpb, "method", "GET");
    host.request.status_num = 0;
    EXPECT_EQ(veskservice(line, &host.request.session, &host.request), result) << uri;
    EXPECT_EQ(host.request.status_num, status) << uri;
  }
}

TEST_F(Stages, outcomeIsLeftForTheHost) {
  const auto left = [this] {
    std::string texts;
    for (const char* name : {"outcome", "server", "attempts", "state", "time", "session"})
      texts +=
          FailingHost::get(host.request.vars, ("vesk-" + std::string(name)).c_str()) +
          " ";
    return texts;
  };
  // What the table has filled in; the guards; the result; what the host finds.
  veskProxy owner{};
  std::strcpy(owner.name, "c:7");
  const std::tuple<veskOutcome, std::uint32_t, int, const char*> rows[] = {
      {{kOutcomeUnknown, 0, "", "", 0, kSessionNone, nullptr},
       kAllGuards,
       REQ_PROCEED,
       "- - - - - - "},
      {{kOutcomeServed, 2, "b:7", "OK", 5000000000, kSessionMoved, &owner},
       0,
       REQ_PROCEED,
       "served b:7 2 OK 5000000000 moved:c:7 "},
      {{kOutcomeServed, 1, "b:7", "OK", 7, kSessionMoved, nullptr},
       0,
       REQ_PROCEED,
       "served b:7 1 OK 7 moved "},
      {{kOutcomeBroken, 1, "a:7", "BR", 7, kSessionNew, nullptr},
       0,
       REQ_PROCEED,
       "broken a:7 1 BR 7 new "},
      {{kOutcomeBroken, 1, "a:7", "BR", 7, kSessionKept, &owner},
       kAllGuards,
       REQ_ABORTED,
       "broken a:7 1 BR 7 kept "},
      {{kOutcomeFailed, 0, "", "", 0, kSessionMoved, &owner},
       0,
       REQ_PROCEED,
       "failed - 0 - 0 - "},
      {{kOutcomeDeclined, 0, "", "", 0, kSessionNone, nullptr},
       0,
       REQ_PROCEED,
       "declined - 0 - 0 - "},
  };
  play.serveResult = kRequestFailed;
  play.responds = true;
  for (const auto& [outcome, guards, result, texts] : rows) {
    play.outcome = outcome;
    veskGuards = guards;
    EXPECT_EQ(service("vesk-internal/x"), result) << texts;
    EXPECT_EQ(left(), texts);
  }
  veskGuards = kNoGuards;
}

TEST_F(Stages, requestEndsAtItsDeadlineWhereTheOptionSaysSo) {
  for (const std::int32_t seconds : {0, 3}) {
    veskRequestTimeout = seconds;
    EXPECT_EQ(service("vesk-internal/x"), REQ_PROCEED);
    EXPECT_NEAR(static_cast<double>(play.deadline), seconds * 1000, seconds * 500);
  }
  veskRequestTimeout = 0;
}

// Each allocation of the two stages fails once: what goes out is whole, and what was
// taken is given back.
TEST_F(Stages, anyAllocationMayFail) {
  const std::string rest =
      " 0 javax.servlet.request.X509Certificate="
      "-----BEGIN CERTIFICATE-----\nMIIC\n-----END CERTIFICATE-----\n\n"
      " javax.servlet.request.key_size=256";
  host.client.globals.Vsecurity_active = 1;
  set(host.request.session.client, "keysize", "256");
  set(host.request.vars, "auth-cert", "MIIC");
  std::map<std::string, int> outcomes;
  for (int failing = 1; host.failAllocation == 0; ++failing) {
    set(host.request.reqpb, "uri", "/app/");
    set(host.request.vars, "vesk-proxy-target", nullptr);
    play.served.clear();
    host.request.status_num = 0;
    host.failAllocation = failing;
    EXPECT_EQ(filter(), REQ_NOACTION);
    const int result = veskservice(nullptr, &host.request.session, &host.request);
    EXPECT_EQ(host.permBlocks, 0) << failing;
    ++outcomes[std::to_string(result) + " " + std::to_string(host.request.status_num) +
               " " + play.served];
  }
  EXPECT_THAT(outcomes, testing::ElementsAre(
                            testing::Pair("-1 500 ", 6),  // arrays and attributes
                            testing::Pair("0 0 /app/" + rest, 1),  // the file's name
                            testing::Pair("0 0 /app/index.jsp" + rest, 4)));
}

class Init : public testing::Test {
 protected:
  explicit Init() {
    setShuttingDown(true);  // as a host leaves it that restarts in one process
  }
  ~Init() override {
    host::runRestartCallbacks();
    EXPECT_EQ(getMappingsTable(), nullptr);
    EXPECT_TRUE(isShuttingDown());
    setShuttingDown(false);
    veskNSAPIVerbose = veskUseApiAlloc = veskMetrics = 0;
    veskEnabledTraceFlags = 0;
    errorUrl = nullptr;
    veskGuards = kNoGuards;
    veskRequestTimeout = veskMaxPerServer = 0;
    veskIdleTimeout = kDefaultIdleTimeout;
  }
  // Options are "name=value" with blanks between. Gives the texts logged.
  std::string init(const char* options) {
    std::istringstream in(options);
    for (std::string name, value; std::getline(in >> std::ws, name, '=') && in >> value;)
      FailingHost::set(host.request.vars, name.c_str(), value.c_str());
    EXPECT_EQ(veskinit(host.request.vars, nullptr, nullptr), REQ_PROCEED);
    EXPECT_FALSE(isShuttingDown());
    std::string texts;
    for (const std::string& line : host.client.lines)
      texts += line.substr(line.rfind('|') + 1) + ";";
    return texts;
  }
  FailingHost host;
};

TEST_F(Init, readsAllOptions) {
  const std::string texts = init(
      "verbose=true metrics=true ignoresuffixmap=True apialloc=TRUE serverstore=/tmp/s "
      "bootstrap=127.0.0.1:1 proxyretryinterval=30 connecttimeout=2 recvtimeout=x "
      "sendtimeout=4s errorurl=/sorry");
  const mappingsTable* table = getMappingsTable();
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->proxyRetryInterval, 30u);
  EXPECT_EQ(table->ignoreSuffix, 1u);
  EXPECT_EQ(veskMetrics, 1);
  EXPECT_EQ(veskEnabledTraceFlags, 0xFFFFFFFFu);
  vesk_request record;
  init_nsapi_request(&record, nullptr, nullptr, nullptr);
  EXPECT_EQ(record.connectTimeout, 2000);
  EXPECT_EQ(record.sendTimeout, 4000);
  EXPECT_EQ(record.recvTimeout, 0);
  EXPECT_EQ(host.criticalSections, 2) << "the table's locks are the host's";
  EXPECT_EQ(host.poolBlocks, 0) << "start-up memory must outlive any request";
  EXPECT_NE(texts.find("ignoresuffixmap true;apialloc true;serverstore /tmp/s;"
                       "bootstrap 127.0.0.1:1;proxyretryinterval 30;connecttimeout 2;"
                       "recvtimeout 0;sendtimeout 4;"),
            std::string::npos)
      << texts;
  EXPECT_EQ(host.client.logged("0|veskNSAPI[init] |errorurl /sorry"), 1);
}

TEST_F(Init, functionsOfAStageAreRefusedThere) {
  for (const auto entry : {veskfilter, veskservice}) {
    EXPECT_EQ(entry(host.request.vars, nullptr, nullptr), REQ_ABORTED);
    EXPECT_STREQ(pblock_findval("error", host.request.vars),
                 "veskfilter and veskservice have no place in Init");
    param_free(pblock_remove("error", host.request.vars));
  }
}

TEST_F(Init, numbersOutOfRangeAreMovedToTheNearest) {
  init(
      "verbose=true traceflags=7z connecttimeout=99999999999999999999 sendtimeout=-1 "
      "recvtimeout=-2147484 proxyretryinterval=-1");
  EXPECT_EQ(veskEnabledTraceFlags, 0u);
  EXPECT_THAT(soTimeouts, testing::ElementsAre(2147483000, -1000, -2147483000));
  ASSERT_NE(getMappingsTable(), nullptr);
  EXPECT_EQ(getMappingsTable()->proxyRetryInterval, 0u);
  EXPECT_EQ(host.client.logged("recvtimeout -2147484 is out of range, using -2147483"),
            1);
  EXPECT_EQ(host.client.logged(" is out of range, using 2147483"), 1);
  EXPECT_EQ(host.client.logged("proxyretryinterval -1 is out of range, using 0"), 1);
  EXPECT_EQ(host.client.logged("serverstore <null>"), 1);
}

// The thread of `stall` begins here and ends with the restart callbacks.
TEST_F(Init, guardsAndTheirLimitsAreReadAndAWrongNameIsTold) {
  init(
      "guards=all,-replay,nosuch idletimeout=7 maintenancetimeout=0 maxperserver=-3 "
      "requesttimeout=9");
  EXPECT_EQ(veskGuards, readGuards("all,-replay").mask);
  EXPECT_EQ(globalRequest.guards, veskGuards);
  EXPECT_EQ(host.client.logged("guards: \"nosuch\" is no name and is ignored; known are "
                               "all, none, latebytes, identity"),
            1);
  EXPECT_EQ(veskIdleTimeout, 7);
  EXPECT_EQ(veskMaintenanceTimeout, kDefaultMaintenanceTimeout) << "it must end";
  EXPECT_EQ(veskMaxPerServer, 0);
  EXPECT_EQ(veskRequestTimeout, 9);
  EXPECT_NE(getMappingsTable()->maintenance, nullptr);
}

TEST_F(Init, withoutMemoryLeavesNoTableAndWithoutOptionsDefaults) {
  host.failAllocation = 1;
  EXPECT_EQ(init("verbose=TRUE apialloc=yes").find("timeout"), std::string::npos);
  EXPECT_EQ(getMappingsTable(), nullptr);
  EXPECT_EQ(veskfilter(nullptr, &host.request.session, &host.request), REQ_NOACTION);
  EXPECT_EQ(veskNSAPIVerbose + veskUseApiAlloc, 0);
  EXPECT_THAT(soTimeouts, testing::ElementsAre(15000, 15000, 300000));
  EXPECT_EQ(errorUrl, nullptr);
}
