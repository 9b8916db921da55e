#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tool need.
# Safe to run any number of times: only missing packages are installed.
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config
          libgtest-dev libgmock-dev libbenchmark-dev
          nlohmann-json3-dev libcli11-dev libedit-dev
          clang libclang-rt-14-dev valgrind
          python3 python3-pytest python3-setuptools python3-pip python3-wheel mypy
          python3-pyvisa python3-pyvisa-py iproute2 util-linux chromium)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# The panel's browser tests: node and npm (Debian's, unless a node is already
# installed some other way, which brings its own npm).
command -v node >/dev/null 2>&1 || missing+=(nodejs)
command -v npm >/dev/null 2>&1 || missing+=(npm)
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# playwright-core for the browser tests, exactly as locked, from the
# registry's own package file kept in tests/browser/vendor: it installs
# offline, so a machine needs no route to the npm registry. It drives
# /usr/bin/chromium, so no browser is downloaded either.
browser_tests="$(dirname "$0")/../tests/browser"
locked=$(sed -n '/"node_modules\/playwright-core"/,/version/s/.*"version": "\(.*\)".*/\1/p' \
         "$browser_tests/package-lock.json")
installed=$(sed -n 's/^  "version": "\(.*\)".*/\1/p' \
            "$browser_tests/node_modules/playwright-core/package.json" 2>/dev/null || true)
if [ "$installed" != "$locked" ]; then
  echo "installing playwright-core $locked (npm ci --offline in tests/browser)"
  (cd "$browser_tests" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 \
     npm ci --offline --no-audit --no-fund --loglevel=error)
fi
