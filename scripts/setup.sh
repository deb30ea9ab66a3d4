#!/usr/bin/env bash
# Installs everything the build and the test suites need on a Debian machine.
# Run as root (or through sudo).
set -euo pipefail

export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends \
  cmake make g++ \
  libgtest-dev googletest libbenchmark-dev \
  openjdk-17-jdk-headless \
  g++-mingw-w64-x86-64-posix \
  wine64
