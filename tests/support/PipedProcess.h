// A tool run as a child process whose standard output a test reads line by
// line while it runs, or whole when it ends; standard error goes to a file.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/TempDir.h"

struct RunResult {
    int status;  // exit code, or minus the signal that ended the process
    std::string out;
    std::string err;
};

class CPipedProcess {
public:
    // Runs `program` with `args`; standard output goes to a pipe when
    // `pipeOut`, else to a file read by Wait().
    CPipedProcess(const std::string& program, const std::vector<std::string>& args, bool pipeOut);
    // Kills the process if it still runs.
    ~CPipedProcess();
    CPipedProcess(const CPipedProcess&) = delete;
    CPipedProcess& operator=(const CPipedProcess&) = delete;

    pid_t Pid() const { return m_pid; }

    // Next line from the piped standard output, without its newline; false at
    // the end. The wait bound only keeps a broken tool from hanging the test.
    bool ReadLine(std::string& line);

    // Reads the piped output to its end, then reaps the process.
    RunResult Wait();

private:
    CTempDir m_dir;
    std::string m_program;
    pid_t m_pid = -1;
    int m_outFd = -1;
    std::string m_pending;
};

// Runs `program` to its end with standard output in a file.
RunResult run_piped(const std::string& program, const std::vector<std::string>& args);
