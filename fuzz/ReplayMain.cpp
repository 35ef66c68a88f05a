// A main for a fuzz target without libFuzzer: every file of each directory
// argument (a file argument stands for itself), in name order, goes through
// the target's LLVMFuzzerTestOneInput once, so the ordinary test suite fails
// on a checked-in input that fails. Targets that keep state across inputs see
// the same order every time. A crash, a sanitizer report or a failed check
// names the input being replayed on standard error.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));
// Present when a sanitizer runtime is linked in; it then reports crashes itself.
extern "C" void __sanitizer_set_death_callback(void (*callback)(void)) __attribute__((weak));

namespace {

char g_current[4096] = "(none)";

void WriteAll(const char* text) {
    size_t left = strlen(text);
    while (left > 0) {
        const ssize_t n = write(STDERR_FILENO, text, left);
        if (n <= 0) {
            return;
        }
        text += n;
        left -= static_cast<size_t>(n);
    }
}

void NameInput() {
    WriteAll("\nfuzz replay: failed on input ");
    WriteAll(g_current);
    WriteAll("\n");
}

void OnFatalSignal(int signo) {
    NameInput();
    signal(signo, SIG_DFL);
    raise(signo);
}

void InstallReporters() {
    // The checks of the harnesses abort or trap; sanitizers leave those signals alone.
    std::vector<int> signals = {SIGABRT, SIGILL};
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback(NameInput);
    } else {
        signals.insert(signals.end(), {SIGSEGV, SIGBUS, SIGFPE});
    }
    for (int signo : signals) {
        signal(signo, OnFatalSignal);
    }
}

bool Collect(const std::string& arg, std::vector<std::string>& inputs) {
    std::error_code error;
    if (!std::filesystem::is_directory(arg, error)) {
        if (!std::filesystem::is_regular_file(arg, error)) {
            fprintf(stderr, "fuzz replay: %s is neither a directory nor a file\n", arg.c_str());
            return false;
        }
        inputs.push_back(arg);
        return true;
    }
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(arg, error)) {
        if (entry.is_regular_file()) {
            names.push_back(entry.path().filename().string());
        }
    }
    if (error) {
        fprintf(stderr, "fuzz replay: cannot list %s: %s\n", arg.c_str(), error.message().c_str());
        return false;
    }
    if (names.empty()) {
        fprintf(stderr, "fuzz replay: no inputs in %s\n", arg.c_str());
        return false;
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        inputs.push_back(arg + "/" + name);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s DIR|FILE...\n", argv[0]);
        return 2;
    }
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!Collect(argv[i], inputs)) {
            return 1;
        }
    }
    InstallReporters();
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    for (const std::string& path : inputs) {
        snprintf(g_current, sizeof(g_current), "%s", path.c_str());
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                                      std::istreambuf_iterator<char>());
        if (file.bad()) {
            fprintf(stderr, "fuzz replay: cannot read %s\n", path.c_str());
            return 1;
        }
        // An exactly sized heap copy, as libFuzzer passes: a read past the end is an overflow.
        std::unique_ptr<uint8_t[]> data(new uint8_t[bytes.size()]);
        if (!bytes.empty()) {
            memcpy(data.get(), bytes.data(), bytes.size());
        }
        LLVMFuzzerTestOneInput(data.get(), bytes.size());
    }
    snprintf(g_current, sizeof(g_current), "(none: all %zu replayed)", inputs.size());
    fprintf(stderr, "fuzz replay: %zu inputs passed\n", inputs.size());
    return 0;
}
