#include "tests/support/StdoutCapture.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

CStdoutCapture::CStdoutCapture() {
    fflush(stdout);
    char name[] = "/tmp/quvo-stdout-XXXXXX";
    m_captureFd = mkstemp(name);
    if (m_captureFd < 0) {
        throw std::runtime_error("cannot create stdout capture file");
    }
    unlink(name);
    m_savedFd = dup(STDOUT_FILENO);
    dup2(m_captureFd, STDOUT_FILENO);
}

CStdoutCapture::~CStdoutCapture() {
    Stop();
}

std::string CStdoutCapture::Stop() {
    if (m_savedFd < 0) {
        return m_text;
    }
    fflush(stdout);
    dup2(m_savedFd, STDOUT_FILENO);
    close(m_savedFd);
    m_savedFd = -1;
    lseek(m_captureFd, 0, SEEK_SET);
    char buf[65536];
    ssize_t n;
    while ((n = read(m_captureFd, buf, sizeof(buf))) > 0) {
        m_text.append(buf, static_cast<size_t>(n));
    }
    close(m_captureFd);
    return m_text;
}
