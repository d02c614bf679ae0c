#!/usr/bin/env bash
# Times the listing of a device backup: `utils-inspect backup DIR` (the summary, which reads the
# whole index) and `--list` as text, --json and --csv, on a backup of N entries (default 100000)
# made by scripts/corpus/make_backup.py, every file stored. Prints the best elapsed time of three runs each.
#
#   scripts/bench-backup.sh [--entries N]
#
# Builds the library and the tool in Release into build-release/ (or $BUILD_DIR); the backup is
# kept in the build folder and remade only when the generator or N changes.
set -euo pipefail
cd "$(dirname "$0")/.."
entries=100000
if [ "${1:-}" = "--entries" ]; then entries="$2"; fi

scripts/install-deps.sh
export BUILD_DIR="${BUILD_DIR:-build-release}" BUILD_TYPE="${BUILD_TYPE:-Release}"
scripts/build.sh -DUTILS_BUILD_TESTS=OFF -DUTILS_BUILD_BENCH=OFF >/dev/null

backup="$BUILD_DIR/corpus/backup-$entries"
stamp="$(cat scripts/corpus/make_backup.py bench/make_corpus.py | sha1sum | cut -c1-12)-$entries"
if [ ! -f "$backup/Manifest.db" ] || [ "$(cat "$backup.stamp" 2>/dev/null)" != "$stamp" ]; then
  echo "making a backup of $entries entries..." >&2
  rm -rf "$backup"
  python3 scripts/corpus/make_backup.py bench "$backup" --entries "$entries" >&2
  echo "$stamp" > "$backup.stamp"
fi

tool="$BUILD_DIR/tools/utils-inspect"
took=$(mktemp)
trap 'rm -f "$took"' EXIT
best() {
  local best="" t
  for _ in 1 2 3; do
    /usr/bin/time -f "%e" -o "$took" "$tool" backup "$backup" "$@" >/dev/null 2>&1 || true
    t=$(tail -n 1 "$took")
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best="$t"; fi
  done
  echo "$best"
}
printf '%-28s %8s   (target: under 1 s for 100,000 entries)\n' "backup of $entries entries" "seconds"
printf '%-28s %8s\n' "summary" "$(best)" "--list" "$(best --list)" "--list --json" "$(best --list --json)" \
  "--list --csv" "$(best --list --csv)"
