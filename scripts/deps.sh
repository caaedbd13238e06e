#!/usr/bin/env bash
# Installs what building and testing need, from Debian's packages, when it is
# missing. Needs root (apt-get).
set -euo pipefail
# clang: the Clang build; libclang-rt-14-dev: its sanitizer and libFuzzer
# runtimes (the fuzz stage); pkg-config, dpkg-dev (dpkg-shlibdeps) and file
# (CPack's look at the binaries): the install and package test; openocd and
# openfpgaloader: clients of the servers in the tests; go-md2man: the manual
# pages; man-db and bash-completion: the tests of the pages and the completion;
# libsystemd-dev: socket activation; nlohmann-json3-dev: every JSON
# document; systemd (systemd-socket-activate, systemd-analyze) and lintian:
# the tests of the units and the packages;
# python3, python3-pytest and mypy: the Python package, its tests and its types;
# libcpp-httplib-dev: kelvorn-chain view's HTTP server; chromium, chromium-driver
# and python3-selenium: the test of its page in a real browser; curl and jq: its
# API read from the shell.
pkgs=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev libcli11-dev util-linux
      pkg-config dpkg-dev file openocd openfpgaloader go-md2man man-db bash-completion
      libsystemd-dev nlohmann-json3-dev systemd lintian python3 python3-pytest mypy
      libcpp-httplib-dev chromium chromium-driver python3-selenium curl jq)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}" >/dev/null
fi
