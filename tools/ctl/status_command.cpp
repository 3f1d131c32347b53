// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl status: is it well?

#include <poll.h>
#include <termios.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <filesystem>

#include "internal/scoped.hpp"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"
#include "tools/files/durable.hpp"
#include "tools/service/service.hpp"
#include "tools/status/gather.hpp"
#include "tools/status/judge.hpp"
#include "tools/status/report.hpp"

namespace tavrix::ctl {
namespace {

constexpr int kDefaultPause = 2;  // seconds
constexpr const char* kClear = "\033[H\033[2J";

struct Question {
  status::Places places;
  bool metrics = false;
  std::string output;  // a file for the metrics
  int watch = 0;       // seconds; 0: once
};

// Replaces the file by a rename: the collector reads a whole file or the one of before.
int write_metrics(const std::string& text, const std::string& path) {
  const std::string fresh = path + ".tmp";
  const Stream file(std::fopen(fresh.c_str(), "we"));
  if (!file || std::fputs(text.c_str(), file.get()) < 0 || std::fflush(file.get()) != 0 ||
      std::rename(fresh.c_str(), path.c_str()) != 0) {
    complain("{}: {}", path, std::strerror(errno));
    unlink(fresh.c_str());
    return kFailure;
  }
  return kYes;
}

int show_once(const Options& options, const Question& question, const char* before) {
  const status::Facts facts = status::gather(question.places);
  const auto findings = status::judge(facts);
  std::fputs(before, stdout);
  if (question.metrics) {
    const std::string text = status::metrics_of(facts, findings);
    if (!question.output.empty()) return write_metrics(text, question.output);
    std::fputs(text.c_str(), stdout);
  } else if (options.json) {
    print(status::json_of(facts, findings));
  } else {
    std::fputs(status::screen_of(facts, findings).c_str(), stdout);
  }
  std::fflush(stdout);
  return static_cast<int>(status::worst(findings));
}

// Reads keys without a newline, and gives the terminal back as it was.
class Keys {
 public:
  Keys() : is_terminal_(isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &before_) == 0) {
    if (!is_terminal_) return;
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  ~Keys() {
    if (is_terminal_) tcsetattr(STDIN_FILENO, TCSANOW, &before_);
  }
  Keys(const Keys&) = delete;
  Keys& operator=(const Keys&) = delete;

  // -1 makes poll() skip it.
  [[nodiscard]] int fd() const { return is_terminal_ ? STDIN_FILENO : -1; }
  static bool is_quit() {
    char key = 0;
    return read(STDIN_FILENO, &key, 1) != 1 || key == 'q' || key == 'Q';
  }

 private:
  termios before_{};
  bool is_terminal_;
};

// Shows the status again and again until q or a signal; the exit code is that of the last one.
int watch(const Options& options, const Question& question) {
  const bool redraws = isatty(STDOUT_FILENO) == 1 && !options.json && !question.metrics;
  const Fd signals = service::take_signals();
  const Keys keys;
  const char* between = "";
  for (;;) {
    const int code = show_once(options, question, redraws ? kClear : between);
    if (!redraws && !options.json && !question.metrics) between = "\n";
    pollfd ready[] = {{signals.get(), POLLIN, 0}, {keys.fd(), POLLIN, 0}};
    poll(ready, 2, question.watch * 1000);
    if (ready[0].revents != 0) return code;
    if (ready[1].revents != 0 && Keys::is_quit()) return code;
  }
}

void add_status_command(CLI::App& app, Options& options, Action& action) {
  static Question question;
  CLI::App* command = app.add_subcommand(
      "status", "Is it well, and what is to be done? (exit 0: well, 1: a warning, 2: critical)");
  auto* metrics = command->add_flag("--metrics", question.metrics,
                                    "print metrics in the text format of Prometheus");
  command->add_option("--output", question.output, "replace this file by the metrics")
      ->type_name("FILE")
      ->needs(metrics);
  command->add_option("--watch", question.watch, "show it again every so many seconds, until q")
      ->expected(0, 1)
      ->default_val(kDefaultPause)
      ->force_callback(false)
      ->check(CLI::Range(1, 86400));
  command->add_option("--settings", question.places.settings, "the settings file")
      ->type_name("FILE")
      ->capture_default_str();
  command->add_option("--dir", question.places.inbox, "the folder in which maps are handed over")
      ->type_name("DIR")
      ->capture_default_str();
  cli::add_examples(*command, {{"tavrixctl status", "is it well?"},
                               {"tavrixctl status --watch 5", "again every five seconds, until q"},
                               {"tavrixctl --json status", "the same, for a program"},
                               {"tavrixctl status --metrics", "for a monitoring system"}});
  command->callback([&options, &action, command] {
    options.needs_root = false;
    if (command->count("--watch") == 0) question.watch = 0;
    action = [&options] {
      set_debug_level(-1);
      return question.watch > 0 ? watch(options, question) : show_once(options, question, "");
    };
  });
}

const Command registered(5, add_status_command);

}  // namespace
}  // namespace tavrix::ctl
