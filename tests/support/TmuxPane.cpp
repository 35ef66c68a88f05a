#include "tests/support/TmuxPane.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/ChildProcess.h"
#include "tests/support/Poll.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

namespace {

constexpr double kTmuxSeconds = 30;

}  // namespace

CTmuxPane::CTmuxPane(const std::string& tmux, const std::string& dir, const std::string& command, int width,
                     int height)
    : m_tmux(tmux), m_dir(dir) {
    std::string output;
    m_started = _Tmux({"new-session", "-d", "-s", "pane", "-x", std::to_string(width), "-y",
                       std::to_string(height), command},
                      &output) == 0;
    EXPECT_TRUE(m_started) << output;
}

CTmuxPane::~CTmuxPane() {
    if (m_started) {
        _Tmux({"kill-server"}, nullptr);
    }
}

int CTmuxPane::_Tmux(const std::vector<std::string>& args, std::string* output) {
    std::vector<std::string> argv = {m_tmux, "-f", "/dev/null", "-S", m_dir + "/tmux.sock"};
    argv.insert(argv.end(), args.begin(), args.end());
    const std::string path = m_dir + "/tmux.out";
    const int status = run_program(argv, m_dir, path, kTmuxSeconds);
    if (output != nullptr) {
        *output = read_file(path);
    }
    return status;
}

bool CTmuxPane::_Command(const std::vector<std::string>& args, std::string* output) {
    std::string text;
    const int status = _Tmux(args, &text);
    EXPECT_EQ(status, 0) << "tmux " << args.front() << ": " << text;
    if (output != nullptr) {
        *output = text;
    }
    return status == 0;
}

bool CTmuxPane::KeepAfterExit() {
    return _Command({"set-option", "-t", "pane", "remain-on-exit", "on"});
}

bool CTmuxPane::Keys(const std::vector<std::string>& keys) {
    std::vector<std::string> args = {"send-keys", "-t", "pane"};
    args.insert(args.end(), keys.begin(), keys.end());
    return _Command(args);
}

bool CTmuxPane::Type(const std::string& text) {
    return _Command({"send-keys", "-t", "pane", "-l", text});
}

bool CTmuxPane::Resize(int width, int height) {
    return _Command(
        {"resize-window", "-t", "pane", "-x", std::to_string(width), "-y", std::to_string(height)});
}

pid_t CTmuxPane::ProgramPid() {
    std::string output;
    if (!_Command({"display-message", "-p", "-t", "pane", "#{pane_pid}"}, &output)) {
        return -1;
    }
    char* end = nullptr;
    const long pid = strtol(output.c_str(), &end, 10);
    return end != output.c_str() && pid > 0 ? static_cast<pid_t>(pid) : -1;
}

std::vector<std::string> CTmuxPane::Screen() {
    std::string output;
    if (!_Command({"capture-pane", "-p", "-t", "pane"}, &output)) {
        return {};
    }
    return split_lines(output);
}

std::vector<std::string> CTmuxPane::WaitScreen(
    const std::function<std::string(const std::vector<std::string>&)>& check, double seconds) {
    std::vector<std::string> screen;
    std::string complaint;
    if (poll_until(
            [&] {
                screen = Screen();
                complaint = check(screen);
                return complaint.empty();
            },
            seconds, 50)) {
        return screen;
    }
    std::string text;
    for (const std::string& line : screen) {
        text += line + "\n";
    }
    ADD_FAILURE() << complaint << "\nscreen:\n" << text;
    return screen;
}
