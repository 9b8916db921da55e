#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tool need.
# Safe to run any number of times: only missing packages are installed.
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config
          libgtest-dev libgmock-dev libbenchmark-dev
          nlohmann-json3-dev libcli11-dev libedit-dev
          clang libclang-rt-14-dev valgrind
          python3 python3-pytest python3-setuptools python3-pip python3-wheel mypy
          python3-pyvisa python3-pyvisa-py iproute2 util-linux)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
