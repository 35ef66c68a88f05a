// Redirects the process's standard output (file descriptor 1) into a file
// while alive, so tests can read exactly what the log printed.
#pragma once

#include <string>

class CStdoutCapture {
public:
    CStdoutCapture();
    ~CStdoutCapture();
    CStdoutCapture(const CStdoutCapture&) = delete;
    CStdoutCapture& operator=(const CStdoutCapture&) = delete;

    // Ends the capture (if still running) and returns everything written.
    std::string Stop();

private:
    int m_savedFd;
    int m_captureFd;
    std::string m_text;
};
