#include "tests/support/TempDir.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

CTempDir::CTempDir() {
    char name[] = "/tmp/quvo-test-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        throw std::runtime_error("cannot create temporary directory");
    }
    m_path = name;
}

CTempDir::~CTempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string CTempDir::WriteFile(const std::string& name, const std::string& content) const {
    const std::string path = m_path + "/" + name;
    std::ofstream out(path, std::ios::binary);
    out << content;
    return path;
}

std::vector<std::string> CTempDir::List() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}
