#include "tests/support/TmuxPane.h"

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <sstream>

#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

namespace {

constexpr double kTmuxSeconds = 30;

double seconds_now() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

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

std::vector<std::string> CTmuxPane::Screen() {
    std::string output;
    std::vector<std::string> lines;
    if (_Tmux({"capture-pane", "-p", "-t", "pane"}, &output) != 0) {
        return lines;
    }
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> CTmuxPane::WaitScreen(
    const std::function<std::string(const std::vector<std::string>&)>& check, double seconds) {
    const double deadline = seconds_now() + seconds;
    std::vector<std::string> screen;
    std::string complaint;
    while (seconds_now() < deadline) {
        screen = Screen();
        complaint = check(screen);
        if (complaint.empty()) {
            return screen;
        }
        usleep(50 * 1000);
    }
    std::string text;
    for (const std::string& line : screen) {
        text += line + "\n";
    }
    ADD_FAILURE() << complaint << "\nscreen:\n" << text;
    return screen;
}
