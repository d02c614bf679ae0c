#!/usr/bin/env bash
# Measures the SQLite reader against the sqlite3 library and shell on a generated ~300 MB chat
# database, all in one run, and prints one table with the ratios.
#
#   scripts/bench.sh [--messages N]
#
# Builds in Release into build-release/ (or $BUILD_DIR), makes the corpus with
# bench/make_corpus.py (deterministic; kept in the build folder and remade only when the
# generator or N changes), then runs bench_sqlite_corpus pinned to one core and times
# `utils-inspect rows` next to the sqlite3 shell printing the same table, and `utils-inspect
# recover` end to end, for the message table and for every table, on every core (GNU time:
# elapsed seconds and peak resident memory, best of three runs each).
set -euo pipefail
cd "$(dirname "$0")/.."
messages=680000
if [ "${1:-}" = "--messages" ]; then messages="$2"; fi

scripts/install-deps.sh
export BUILD_DIR="${BUILD_DIR:-build-release}" BUILD_TYPE=Release
scripts/build.sh -DUTILS_BUILD_TESTS=OFF -DUTILS_BUILD_BENCH=ON >/dev/null

corpus="$BUILD_DIR/corpus"
db="$corpus/bench-$messages.db"
stamp="$(sha1sum bench/make_corpus.py | cut -c1-12)-$messages"
mkdir -p "$corpus"
if [ ! -f "$db" ] || [ "$(cat "$db.stamp" 2>/dev/null)" != "$stamp" ]; then
  echo "making the corpus ($messages messages)..." >&2
  python3 bench/make_corpus.py bench "$db" --messages "$messages" >&2
  echo "$stamp" > "$db.stamp"
fi

core=$(( $(nproc) - 1 ))
pin=(taskset -c "$core")
echo "running the benchmarks on core $core..." >&2
UTILS_BENCH_DB="$db" "${pin[@]}" "$BUILD_DIR/bench/bench_sqlite_corpus" \
  --benchmark_format=json --benchmark_out="$corpus/bench.json" --benchmark_out_format=json >/dev/null

# Best elapsed time and its peak memory over three runs of a command whose output is dropped
# (pinned to one core unless pin is emptied).
measure() {
  local best="" line
  for _ in 1 2 3; do
    line=$( { /usr/bin/time -f "%e %M" ${pin[@]+"${pin[@]}"} "$@" >/dev/null; } 2>&1 | tail -n 1)
    if [ -z "$best" ] || awk -v a="${line%% *}" -v b="${best%% *}" 'BEGIN { exit !(a < b) }'; then best="$line"; fi
  done
  echo "$best"
}
tool="$BUILD_DIR/tools/utils-inspect"
echo "timing the tool and the shell..." >&2
rows_text=$(measure "$tool" rows "$db" message)
rows_json=$(measure "$tool" rows "$db" message --json)
rows_csv=$(measure "$tool" rows "$db" message --csv)
shell_text=$(measure sqlite3 -readonly "$db" "SELECT * FROM message")
shell_json=$(measure sqlite3 -readonly -json "$db" "SELECT * FROM message")
shell_csv=$(measure sqlite3 -readonly -csv -header "$db" "SELECT * FROM message")
pin=()
recover_one=$(measure "$tool" recover "$db" message --json)
recover_all=$(measure "$tool" recover "$db" --json)

python3 - "$corpus/bench.json" "$db" "$rows_text" "$rows_json" "$rows_csv" "$shell_text" "$shell_json" "$shell_csv" \
  "$recover_one" "$recover_all" <<'EOF'
import json, os, sys

bench = {b["name"].split("/min_time")[0]: b for b in json.load(open(sys.argv[1]))["benchmarks"]}
size_mb = os.path.getsize(sys.argv[2]) / 1e6
runs = [tuple(float(x) for x in arg.split()) for arg in sys.argv[3:11]]

def ms(name):
    return bench[name]["real_time"]

rows = []
def row(what, ours, reference="", ratio="", target=""):
    rows.append((what, ours, reference, ratio, target))

load = bench["BM_LoadDb"]
row(f"loadDb ({size_mb:.0f} MB, {load['pages']:,.0f} pages)", f"{ms('BM_LoadDb'):.0f} ms", "", "",
    "< 300 ms")
row("  page index in memory", f"{load['index_MB']:.1f} MB", "", "", "< 40 MB")
fetch, scan = ms("BM_FetchRecordsInTable"), ms("BM_Sqlite3Scan")
row("fetchRecordsInTable(message)", f"{fetch:.0f} ms", f"{scan:.0f} ms", f"{fetch / scan:.2f}", "<= 1.5")
stream = ms("BM_ScannerForEachRecord")
row("  SQliteScanner::forEachRecord", f"{stream:.0f} ms", f"{scan:.0f} ms", f"{stream / scan:.2f}", "")
stored = ms("BM_TableReaderRows")
row("  SQliteTableReader::forEachRow (as stored)", f"{stored:.0f} ms", f"{scan:.0f} ms", f"{stored / scan:.2f}", "")
for arg, label in (("0", "isiissi"), ("1", "isiissi, with header")):
    r = bench[f"BM_RecoveryScan/{arg}"]
    s = bench[f"BM_ScannerRecoveryScan/{arg}"]
    mbps = r["bytes_per_second"] / 1e6
    streamed = r["scanned_MB"] / (s["real_time"] / 1000)
    row(f"recovery scan, {label} ({r['scanned_MB']:.0f} MB of free space)", f"{mbps:.0f} MB/s", "", "",
        ">= 300 MB/s" if arg == "0" else "")
    row("  SQliteScanner, candidates not kept", f"{streamed:.0f} MB/s", "", "", "")
for (label, ours, theirs) in (("rows (text)", runs[0], runs[3]), ("rows --json", runs[1], runs[4]),
                              ("rows --csv", runs[2], runs[5])):
    row(f"utils-inspect {label}: time", f"{ours[0]:.2f} s", f"{theirs[0]:.2f} s", f"{ours[0] / theirs[0]:.2f}",
        "<= 1.5")
    row(f"utils-inspect {label}: peak memory", f"{ours[1] / 1024:.0f} MB", f"{theirs[1] / 1024:.0f} MB", "",
        "<= 100 MB")

for (label, run) in (("recover message --json", runs[6]), ("recover --json (every table)", runs[7])):
    row(f"utils-inspect {label}, all cores: time", f"{run[0]:.2f} s", "", "", "")
    row(f"  file read per second", f"{size_mb / run[0]:.0f} MB/s", "", "", ">= 300 MB/s")
    row(f"  peak memory", f"{run[1] / 1024:.0f} MB", "", "", "<= 200 MB")

head = ("measured on one core (recover: all)", "utils", "sqlite3", "ratio", "target")
widths = [max(len(r[i]) for r in rows + [head]) for i in range(5)]
fmt = lambda r: "  ".join(c.ljust(w) if i == 0 else c.rjust(w) for i, (c, w) in enumerate(zip(r, widths)))
print(fmt(head))
print("  ".join("-" * w for w in widths))
for r in rows:
    print(fmt(r))
EOF
