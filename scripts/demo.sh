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
echo "== live rows of message =="
"$tool" rows "$db" message
echo
echo "== deleted rows recovered from message (pattern $(cat examples/chat.pattern)) =="
"$tool" recover "$db" message "$(cat examples/chat.pattern)" --with-header --free-list
