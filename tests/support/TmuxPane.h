// A program run in a detached tmux session of its own (a private server
// socket), for end-to-end tests of terminal tools such as quvo-view.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

class CTmuxPane {
public:
    // Starts `command` (run by the shell) in a `width` x `height` pane; the
    // server's socket lives in `dir`. Check Started() before use.
    CTmuxPane(const std::string& tmux, const std::string& dir, const std::string& command, int width,
              int height);
    // Kills the tmux server and with it the program.
    ~CTmuxPane();
    CTmuxPane(const CTmuxPane&) = delete;
    CTmuxPane& operator=(const CTmuxPane&) = delete;

    bool Started() const { return m_started; }

    // Each call below fails the test with tmux's output when tmux fails, and
    // returns whether it succeeded.

    // Keeps the pane and its last screen after the program exits.
    bool KeepAfterExit();
    // Sends keys by their tmux names ("Enter", "Escape", "PPage", "q").
    bool Keys(const std::vector<std::string>& keys);
    // Types `text` literally.
    bool Type(const std::string& text);
    bool Resize(int width, int height);
    // The process id of the program in the pane; -1 when tmux fails.
    pid_t ProgramPid();

    // The pane's lines as they are now; empty when tmux fails.
    std::vector<std::string> Screen();
    // Polls the screen until `check` returns "" or `seconds` pass; then fails
    // the test with the last complaint and screen. Returns the last screen.
    std::vector<std::string> WaitScreen(
        const std::function<std::string(const std::vector<std::string>&)>& check, double seconds);

private:
    int _Tmux(const std::vector<std::string>& args, std::string* output);
    bool _Command(const std::vector<std::string>& args, std::string* output = nullptr);

    std::string m_tmux;
    std::string m_dir;
    bool m_started = false;
};
