#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "tests/support/Poll.h"

CChildProcess::CChildProcess(const std::vector<std::string>& argv, const std::string& cwd,
                             const std::string& outputPath) {
    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    m_pid = fork();
    if (m_pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (m_pid == 0) {
        const int fd = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || chdir(cwd.c_str()) != 0) {
            _exit(126);
        }
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        close(fd);
        execv(args[0], args.data());
        _exit(127);
    }
}

CChildProcess::~CChildProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

bool CChildProcess::Wait(double seconds, int& status) {
    const double deadline = seconds_now() + seconds;
    while (m_pid > 0) {
        int raw = 0;
        const pid_t done = waitpid(m_pid, &raw, WNOHANG);
        if (done == m_pid) {
            m_pid = -1;
            status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
            return true;
        }
        if (seconds_now() > deadline) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
            return false;
        }
        usleep(2000);
    }
    return false;
}

void CChildProcess::Signal(int signal) {
    if (m_pid > 0) {
        kill(m_pid, signal);
    }
}

int run_program(const std::vector<std::string>& argv, const std::string& cwd, const std::string& outputPath,
                double seconds) {
    CChildProcess child(argv, cwd, outputPath);
    int status = -1;
    return child.Wait(seconds, status) ? status : -1;
}
