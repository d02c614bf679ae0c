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
echo "== deleted messages: whole cells left in unallocated space and on free-list pages =="
"$tool" recover "$db" message iissii --with-header --free-list
echo
echo "== deleted messages and contacts in freeblocks (the cell's first 4 bytes are overwritten) =="
"$tool" recover "$db" message issii
"$tool" recover "$db" contact sss
