// A fresh directory under /tmp, removed with everything in it on destruction.
#pragma once

#include <string>
#include <vector>

class CTempDir {
public:
    CTempDir();
    ~CTempDir();
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;

    const std::string& Path() const { return m_path; }
    // Writes `content` to `name` inside the directory and returns its path.
    std::string WriteFile(const std::string& name, const std::string& content) const;
    // Names of the entries in the directory, sorted.
    std::vector<std::string> List() const;

private:
    std::string m_path;
};

// Whole contents of a file; empty if it cannot be read.
std::string read_file(const std::string& path);
