#!/usr/bin/env bash
# Installs everything the build and the test suites need on a Debian machine.
# Run as root (or through sudo). With --demo, only what scripts/demo.sh needs
# (compiler, CMake, JDK, Node.js). With --list, prints the packages it would
# install, one per line, and installs nothing (scripts/test.sh uses it to see
# whether anything is missing).
set -euo pipefail

export DEBIAN_FRONTEND=noninteractive
packages=(
  cmake make g++
  nlohmann-json3-dev libcli11-dev libssl-dev libzstd-dev
  libgtest-dev googletest libbenchmark-dev
  openjdk-17-jdk-headless junit5
  g++-mingw-w64-x86-64-posix libgcrypt-mingw-w64-dev libgcrypt20-dev pkg-config
  wine64
  clang
)
# Node.js runs Azurite, the local Blob storage service the Java library's
# tests use; a machine that has it already (from any source) keeps its own.
command -v npm >/dev/null || packages+=(nodejs npm)
if [ "${1:-}" = --demo ]; then
  packages=(cmake make g++ nlohmann-json3-dev libcli11-dev libssl-dev libzstd-dev openjdk-17-jdk-headless)
  command -v npm >/dev/null || packages+=(nodejs npm)
fi
if [ "${1:-}" = --list ]; then
  printf '%s\n' "${packages[@]}"
  exit 0
fi
apt-get update
apt-get install -y --no-install-recommends "${packages[@]}"
