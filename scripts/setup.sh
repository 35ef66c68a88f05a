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

if [ ${#missing[@]} -eq 0 ]; then
    echo "setup: everything needed is installed"
    exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
