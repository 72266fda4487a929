// vesk-ctl watch: servers as they are now, again and again.

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <future>
#include <optional>
#include <thread>

#include "ctl/clock_text.h"
#include "ctl/command.h"
#include "ctl/display.h"
#include "ctl/fetch_url.h"
#include "ctl/options.h"
#include "ctl/screen.h"
#include "ctl/watch_source.h"

namespace ctl {

using Clock = std::chrono::steady_clock;

struct WatchOptions {
  std::string target;
  double interval = 2;
  double timeout = kDefaultTimeout;
  int count = 0;  // looks; 0: until somebody ends it
};

// A look that is under way: it may take as long as a server that doesn't answer, and the
// keyboard shouldn't have to wait for it.
class Looker {
 public:
  explicit Looker(WatchSource& watched)
      : source(watched), done(eventfd(0, EFD_CLOEXEC)) {}

  void start() {
    running = std::async(std::launch::async, [this] {
      View view = source.look();
      (void)eventfd_write(done, 1);
      return view;
    });
  }
  [[nodiscard]] bool isRunning() const {
    return running.valid();
  }
  [[nodiscard]] View take() {
    eventfd_t unused = 0;
    (void)eventfd_read(done, &unused);
    return running.get();
  }
  [[nodiscard]] int descriptor() const {
    return done;
  }

 private:
  WatchSource& source;
  int done;  // readable when the look is
  std::future<View> running;
};

// What the screen shows: the newest view, or the one before with the reason that there is
// no newer one.
class Picture {
 public:
  explicit Picture(const std::string& target) : title(visible(target)) {}

  void update(View seen) {
    failure = seen.failure;
    if (!failure.empty()) return;
    view = std::move(seen);
    time = clockText(std::time(nullptr));
  }

  [[nodiscard]] std::string text() const {
    constexpr std::size_t kMostNews = 10;
    std::string out = inColour(Colour::faint, title + "  " + time) + "\n";
    if (!failure.empty()) out += inColour(Colour::bad, failure) + "\n";
    if (time.empty()) return out;
    out += view.summary + "\n\n" + view.servers.text();
    if (!view.news.empty()) out += "\n";
    const std::size_t skipped = view.news.size() - std::min(kMostNews, view.news.size());
    for (std::size_t i = skipped; i < view.news.size(); ++i) out += view.news[i] + "\n";
    return out;
  }

 private:
  std::string title;
  std::string time;  // of the view; empty: there is none yet
  std::string failure;
  View view;
};

// One object a line: a stream that programs can read as it comes.
static std::string jsonLine(const View& view) {
  const Json shown = view.failure.empty() ? view.json : Json{{"failure", view.failure}};
  return shown.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

class Watch {
 public:
  Watch(WatchSource& watched, const WatchOptions& wanted, bool asJson)
      : options(wanted),
        json(asJson),
        // Who wants so many looks wants to keep what is shown.
        screen(!asJson && wanted.count == 0),
        picture(wanted.target),
        looker(watched) {}

  int run();

 private:
  void takeLook();
  [[nodiscard]] std::chrono::milliseconds untilNext() const;

  const WatchOptions& options;
  bool json;
  Screen screen;
  Picture picture;
  Looker looker;
  Clock::time_point next = Clock::now();
  int looks = 0;
  int exitStatus = kExitFine;
};

void Watch::takeLook() {
  View view = looker.take();
  exitStatus = view.failure.empty() && view.allWell ? kExitFine : kExitFailure;
  ++looks;
  if (json) return screen.show(jsonLine(view));
  picture.update(std::move(view));
  const bool follows = looks > 1 && !screen.isTerminal();
  screen.show((follows ? "\n" : "") + picture.text());
}

std::chrono::milliseconds Watch::untilNext() const {
  constexpr std::chrono::milliseconds kAnHour = std::chrono::hours(1);
  if (looker.isRunning()) return kAnHour;
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
  return std::clamp(left, std::chrono::milliseconds(0), kAnHour);
}

int Watch::run() {
  if (screen.isTerminal()) screen.show(picture.text());
  while (options.count == 0 || looks < options.count) {
    if (!looker.isRunning() && Clock::now() >= next) {
      next = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(options.interval));
      looker.start();
    }
    const Screen::Wake wake = screen.wait(untilNext(), looker.descriptor());
    if (wake == Screen::Wake::ready) takeLook();
    if (wake == Screen::Wake::resized && !json) screen.show(picture.text());
    if (wake != Screen::Wake::end) continue;
    screen.leave();
    // Not to wait for a look that nobody will see.
    std::_Exit(kExitFine);
  }
  return exitStatus;
}

static std::unique_ptr<WatchSource> sourceOf(const WatchOptions& options,
                                             const Invocation& invocation) {
  if (isUrl(options.target)) return watchStatusPage(options.target, options.timeout);
  Visit visit;
  visit.limits = limitsOf(options.timeout);
  visit.verbose = invocation.verbose;
  return watchServers(options.target, visit);
}

static int runWatch(const WatchOptions& options, const Invocation& invocation) {
  const std::unique_ptr<WatchSource> source = sourceOf(options, invocation);
  return Watch(*source, options, invocation.json).run();
}

void addWatch(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<WatchOptions>();
  CLI::App* command =
      app.add_subcommand("watch", "Servers as they are now, again and again");
  command
      ->add_option("TARGET", options->target,
                   "URL of a status page, or a web server's configuration")
      ->required();
  command->add_option("-i,--interval", options->interval, "Seconds between two looks")
      ->check(secondsFrom(0.0))
      ->type_name("S")
      ->capture_default_str();
  command->add_option("-c,--count", options->count, "End after so many looks")
      ->check(CLI::Range(1, kMostQuestions))
      ->type_name("N");
  addTimeout(*command, options->timeout);
  command->callback(
      [options, &invocation] { invocation.exitStatus = runWatch(*options, invocation); });
}

}  // namespace ctl
