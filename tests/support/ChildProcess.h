// Runs a program as a child process with its output in a file, for the
// end-to-end tests that drive quvo-md, quvo-sim and quvo-dump.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class CChildProcess {
public:
    // Starts `argv` in `cwd` with standard output and error into `outputPath`.
    CChildProcess(const std::vector<std::string>& argv, const std::string& cwd,
                  const std::string& outputPath);
    // Kills the child if it still runs.
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    // Waits up to `seconds`; true with the exit status (or 128 + signal) when
    // the child ended, false (child killed) when it did not end in time.
    bool Wait(double seconds, int& status);
    void Signal(int signal);
    bool Running() const { return m_pid > 0; }
    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
};

// Runs `argv` to completion; returns the exit status, or -1 after a timeout.
int run_program(const std::vector<std::string>& argv, const std::string& cwd, const std::string& outputPath,
                double seconds);
