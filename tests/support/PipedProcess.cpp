#include "tests/support/PipedProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

int decode_status(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace

CPipedProcess::CPipedProcess(const std::string& program, const std::vector<std::string>& args, bool pipeOut)
    : m_program(program) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    const std::string outPath = m_dir.Path() + "/out";
    const std::string errPath = m_dir.Path() + "/err";
    int fds[2] = {-1, -1};
    if (pipeOut && pipe(fds) != 0) {
        ADD_FAILURE() << "pipe: " << strerror(errno);
        return;
    }
    m_pid = fork();
    if (m_pid == 0) {
        const int out = pipeOut ? fds[1] : open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        if (pipeOut) {
            close(fds[0]);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    if (pipeOut) {
        close(fds[1]);
        m_outFd = fds[0];
    }
}

CPipedProcess::~CPipedProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_outFd >= 0) {
        close(m_outFd);
    }
}

bool CPipedProcess::ReadLine(std::string& line) {
    size_t end;
    while ((end = m_pending.find('\n')) == std::string::npos) {
        pollfd ready{m_outFd, POLLIN, 0};
        if (poll(&ready, 1, 30000) != 1) {
            ADD_FAILURE() << m_program << " printed nothing for 30 s";
            kill(m_pid, SIGKILL);
            return false;
        }
        char buffer[4096];
        const ssize_t got = read(m_outFd, buffer, sizeof(buffer));
        if (got <= 0) {
            return false;
        }
        m_pending.append(buffer, static_cast<size_t>(got));
    }
    line = m_pending.substr(0, end);
    m_pending.erase(0, end + 1);
    return true;
}

RunResult CPipedProcess::Wait() {
    RunResult result{-1000, "", ""};
    std::string line;
    std::string lines;
    while (m_outFd >= 0 && ReadLine(line)) {
        lines += line + "\n";
    }
    m_pending = lines + m_pending;
    int status = 0;
    if (waitpid(m_pid, &status, 0) == m_pid) {
        result.status = decode_status(status);
    }
    m_pid = -1;
    result.out = m_outFd >= 0 ? m_pending : read_file(m_dir.Path() + "/out");
    result.err = read_file(m_dir.Path() + "/err");
    return result;
}

RunResult run_piped(const std::string& program, const std::vector<std::string>& args) {
    return CPipedProcess(program, args, false).Wait();
}
