#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite.
# SANITIZE=1 builds into build-asan/ with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
if [ "${SANITIZE:-0}" = 1 ]; then
  export BUILD_DIR=build-asan BUILD_TYPE=Debug
  export ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  scripts/build.sh -DUTILS_SANITIZE=ON -DUTILS_BUILD_BENCH=OFF
else
  scripts/build.sh
fi
cd "${BUILD_DIR:-build}"
QT_QPA_PLATFORM=offscreen ctest --output-on-failure -j"$(nproc)" --timeout 300
