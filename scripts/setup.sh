#!/usr/bin/env bash
# Installs, with apt-get, whatever the build and tests need and the machine
# lacks. Debian packages only; nothing is downloaded from anywhere else.
set -euo pipefail

missing=()

need_command() {  # command package
    command -v "$1" >/dev/null 2>&1 || missing+=("$2")
}

need_header() {  # header-relative-path package
    for dir in /usr/include /usr/local/include; do
        [ -e "$dir/$1" ] && return 0
    done
    missing+=("$2")
}

need_command cmake cmake
need_command g++ g++
need_command make make
need_header gtest/gtest.h libgtest-dev
need_header benchmark/benchmark.h libbenchmark-dev
need_header pcap/pcap.h libpcap-dev
need_command clang clang
need_header ncurses.h libncurses-dev
need_header nlohmann/json.hpp nlohmann-json3-dev
need_command tmux tmux
# quvo-exporter, and promtool to check what it serves.
need_header prometheus/exposer.h prometheus-cpp-dev
need_command promtool prometheus
# quvo-bridge (libnats) and its tests' NATS server, which Debian puts in /usr/sbin.
need_header nats/nats.h libnats-dev
[ -x /usr/sbin/nats-server ] || command -v nats-server >/dev/null 2>&1 || missing+=(nats-server)
# The bridge's credentials test makes its keys and signs its tokens with OpenSSL.
need_header openssl/evp.h libssl-dev
# scripts/bridge-figures.py plots the bridge's latency with gnuplot.
need_command gnuplot gnuplot-nox
# The Python tests run on Debian's interpreter, where python3-numpy installs.
need_command /usr/bin/python3 python3
[ -d /usr/lib/python3/dist-packages/numpy ] || missing+=(python3-numpy)

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
updated=0

install_missing() {
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "setup: installing ${missing[*]}"
    if [ "$updated" -eq 0 ]; then
        $sudo apt-get update -q
        updated=1
    fi
    $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
    missing=()
}

install_missing

# The fuzz preset's runtimes (libFuzzer, and clang's sanitizers) come apart
# from clang, in the package of its major version. clang prints the bare name
# back when it has no such file.
fuzzer_lib="libclang_rt.fuzzer-$(uname -m).a"
if [ ! -e "$(clang -print-file-name="$fuzzer_lib")" ]; then
    missing+=("libclang-rt-$(clang -dumpversion | cut -d. -f1)-dev")
    install_missing
    if [ ! -e "$(clang -print-file-name="$fuzzer_lib")" ]; then
        echo "setup: clang still finds no $fuzzer_lib" >&2
        exit 1
    fi
fi

[ "$updated" -eq 0 ] && echo "setup: everything needed is installed"
exit 0
