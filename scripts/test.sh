#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite.
# SANITIZE=1 builds into build-asan/ with AddressSanitizer and UndefinedBehaviorSanitizer;
# SANITIZE=thread builds into build-tsan/ with ThreadSanitizer (reports that come only from the
# uninstrumented Qt libraries are listed in scripts/tsan.supp).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
case "${SANITIZE:-0}" in
  1)
    export BUILD_DIR=build-asan BUILD_TYPE=Debug
    export ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    scripts/build.sh -DUTILS_SANITIZE=ON -DUTILS_BUILD_BENCH=OFF
    ;;
  thread)
    export BUILD_DIR=build-tsan BUILD_TYPE=RelWithDebInfo
    export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 ignore_noninstrumented_modules=1 suppressions=$PWD/scripts/tsan.supp"
    scripts/build.sh -DUTILS_SANITIZE_THREAD=ON -DUTILS_BUILD_BENCH=OFF
    ;;
  *)
    scripts/build.sh
    ;;
esac
cd "${BUILD_DIR:-build}"
# A failing test prints its output where it fails, and the list of failed tests comes again last.
status=0
QT_QPA_PLATFORM=offscreen ctest --output-on-failure -j"$(nproc)" --timeout 300 || status=$?
if [ "$status" -ne 0 ] && [ -f Testing/Temporary/LastTestsFailed.log ]; then
  echo "Failed tests ($PWD/Testing/Temporary/LastTestsFailed.log):"
  cat Testing/Temporary/LastTestsFailed.log
fi
exit "$status"
