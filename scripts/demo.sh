#!/usr/bin/env bash
# Installs what is missing, builds, and runs utils-inspect on the bundled chat database:
# its tables, the live messages, and the deleted messages recovered from free space.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh >/dev/null
tool=build/tools/utils-inspect
db=examples/chat.db
echo "== tables =="
"$tool" tables "$db"
echo
echo "== live rows of message (the first 25) =="
rows=$("$tool" rows "$db" message)
sed -n '1,26p' <<< "$rows"
echo "... $(tail -n 1 <<< "$rows")"
echo
echo "== deleted messages, with the page and offset where each lay (gaps, freeblocks, free pages) =="
"$tool" recover "$db" message
echo
echo "== the deleted contact =="
"$tool" recover "$db" contact
