#include "ctl/screen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <iterator>

#include "ctl/display.h"

namespace ctl {

// The alternate screen, without a cursor, and with lines that are cut where they end.
constexpr char kEnter[] = "\033[?1049h\033[?25l\033[?7l";
constexpr char kLeave[] = "\033[?7h\033[?25h\033[?1049l";
constexpr char kTop[] = "\033[H";
constexpr char kClearLine[] = "\033[K";
constexpr char kClearBelow[] = "\033[J";

static sigset_t watchedSignals() {
  sigset_t set;
  (void)sigemptyset(&set);
  for (const int number :
       {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGALRM, SIGUSR1, SIGUSR2, SIGTSTP, SIGWINCH})
    (void)sigaddset(&set, number);
  return set;
}

static void write(const std::string& text) {
  print(text);
  (void)std::fflush(stdout);
}

Screen::Screen(bool draws)
    : terminal(draws && isatty(STDOUT_FILENO) == 1),
      keys(terminal && isatty(STDIN_FILENO) == 1) {
  const sigset_t set = watchedSignals();
  (void)pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  enter();
}

Screen::~Screen() {
  leave();
  (void)close(signals);
}

void Screen::enter() {
  entered = true;
  if (!terminal) return;
  keys = keys && tcgetattr(STDIN_FILENO, &before) == 0;
  termios silent = before;
  silent.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  if (keys) (void)tcsetattr(STDIN_FILENO, TCSANOW, &silent);
  write(kEnter);
}

void Screen::leave() {
  if (!entered) return;
  entered = false;
  if (!terminal) return;
  write(kLeave);
  if (keys) (void)tcsetattr(STDIN_FILENO, TCSANOW, &before);
}

static std::size_t linesOfTerminal() {
  constexpr std::size_t kUsual = 24;
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
  return known ? size.ws_row : kUsual;
}

// The last line ends without a line end, which would move all up by one.
static std::string linesThatFit(const std::string& frame) {
  std::string out = kTop;
  std::size_t left = linesOfTerminal();
  std::size_t begin = 0;
  while (begin < frame.size() && left-- > 0) {
    const std::size_t end = frame.find('\n', begin);
    if (begin > 0) out += "\r\n";
    out += frame.substr(begin, end - begin) + kClearLine;
    begin = end == std::string::npos ? frame.size() : end + 1;
  }
  return out + kClearBelow;
}

void Screen::show(const std::string& frame) {
  if (!entered) return;
  write(terminal ? linesThatFit(frame) : frame);
}

// The default of SIGTSTP: with the terminal as the shell wants it, until SIGCONT.
void Screen::stop() {
  leave();
  (void)raise(SIGSTOP);
  enter();
}

Screen::Wake Screen::readSignal() {
  signalfd_siginfo info;
  if (read(signals, &info, sizeof info) != sizeof info) return Wake::time;
  if (info.ssi_signo == SIGTSTP) stop();
  const bool goesOn = info.ssi_signo == SIGTSTP || info.ssi_signo == SIGWINCH;
  return goesOn ? Wake::resized : Wake::end;
}

// A terminal that has gone is the end as well.
Screen::Wake Screen::readKey() {
  char key = 0;
  if (read(STDIN_FILENO, &key, 1) != 1) return Wake::end;
  return key == 'q' ? Wake::end : Wake::resized;
}

Screen::Wake Screen::wait(std::chrono::milliseconds time, int descriptor) {
  pollfd waits[] = {{signals, POLLIN, 0},
                    {keys ? STDIN_FILENO : -1, POLLIN, 0},
                    {descriptor, POLLIN, 0}};
  const int count = poll(waits, std::size(waits), static_cast<int>(time.count()));
  if (count <= 0) return Wake::time;
  if (waits[0].revents != 0) return readSignal();
  if (waits[1].revents != 0) return readKey();
  return Wake::ready;
}

}  // namespace ctl
