#!/usr/bin/env bash
# File store benchmark: stores about 20 MB of real HTML (the Python
# documentation of Debian's python3-doc, files in name order) with
# `zelvarpack store add`, once into a fresh SQLite file and once into a
# fresh database on a throw-away loopback PostgreSQL server, and compresses
# the same files as a whole with gzip -9 in the same run. Prints seconds,
# MB/s and compression ratio (original bytes / stored bytes) for each, and
# each engine's throughput as a share of gzip -9's.
#
# Each measurement is the best of ROUNDS runs (a fresh store every run), so
# that another program's burst of work on a shared machine does not decide
# the result. Beside the wall times, the processor time the tool used
# (user + system, the least of the rounds) and, for PostgreSQL, the
# processor time of all the server's processes while the tool ran: on a
# busy machine waits cost more than work, and these show the work.
#
# Usage: bench/run-store-bench.sh [MEGABYTES [ROUNDS]]   (defaults 20, 3)
set -euo pipefail
cd "$(dirname "$0")/.."

megabytes=${1:-20}
rounds=${2:-3}
scripts/install-deps.sh python3-doc
# The tool of the optimised build (the time goes to zlib and the database).
cmake --preset default >/dev/null
cmake --build build/default -j2 --target zelvarpack >/dev/null
tool=$PWD/build/default/zelvarpack

work=$(mktemp -d)
state=$work/postgres.state
cleanup() {
  scripts/loopback-postgres.sh stop "$state" || true
  rm -rf "$work"
}
trap cleanup EXIT

# The corpus: whole files in name order until the size is reached.
find -L /usr/share/doc/python3-doc/html -name '*.html' -type f | LC_ALL=C sort |
  while IFS= read -r f; do
    printf '%s\t%s\n' "$(stat -Lc %s "$f")" "$f"
  done | awk -F'\t' -v limit=$((megabytes * 1000000)) \
  'total < limit { total += $1; print $2 }' >"$work/files"
mapfile -t files <"$work/files"
bytes=$(cat "${files[@]}" | wc -c)
printf 'corpus: %d files, %d bytes\n\n' "${#files[@]}" "$bytes"

now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { print b - a }'; }
report() { # name seconds stored-bytes
  awk -v n="$1" -v s="$2" -v b="$bytes" -v z="$3" -v g="${gzip_rate:-0}" 'BEGIN {
    rate = b / s / 1e6
    share = g > 0 ? sprintf("%.2f", rate / g) : "1.00"
    printf "%-12s %8.2f s %8.2f MB/s  ratio %6.3f  %s x gzip -9 speed\n", n, s, rate, b / z, share
  }'
}
stored_bytes() { "$tool" store stats --db "$1" | sed -n 's/^stored bytes: //p'; }

# best SECONDS-SO-FAR: prints the smaller of the two (an empty first: the second).
best() { awk -v a="$1" -v b="$2" 'BEGIN { print (a == "" || b < a) ? b : a }'; }
# cpu COMMAND...: runs it and leaves its user + system seconds in $cpu_used.
cpu() {
  /usr/bin/time -f '%U %S' -o "$work/time" "$@"
  cpu_used=$(awk '{ print $1 + $2 }' "$work/time")
}
# server_cpu PID: processor seconds of a server's main process, its ended
# children and its live children so far.
server_cpu() {
  local ticks
  ticks=$(getconf CLK_TCK)
  { awk '{ print $14 + $15 + $16 + $17 }' "/proc/$1/stat"
    for child in $(pgrep -P "$1"); do
      awk '{ print $14 + $15 }' "/proc/$child/stat" 2>/dev/null || true
    done; } | awk -v t="$ticks" '{ s += $1 } END { printf "%.2f\n", s / t }'
}

seconds=""
for _ in $(seq "$rounds"); do
  start=$(now)
  cat "${files[@]}" | gzip -9 >"$work/all.gz"
  seconds=$(best "$seconds" "$(since "$start")")
done
gzip_rate=$(awk -v b="$bytes" -v s="$seconds" 'BEGIN { print b / s / 1e6 }')
report "gzip -9" "$seconds" "$(stat -c %s "$work/all.gz")"

sqlite=$work/store.db
seconds=""
client=""
for _ in $(seq "$rounds"); do
  rm -f "$sqlite" "$sqlite-wal" "$sqlite-shm"
  start=$(now)
  cpu "$tool" store add --db "$sqlite" "${files[@]}" >"$work/sqlite.ids"
  seconds=$(best "$seconds" "$(since "$start")")
  client=$(best "$client" "$cpu_used")
done
report "SQLite" "$seconds" "$(stored_bytes "$sqlite")"
sqlite_cpu=$client

scripts/loopback-postgres.sh start "$state"
port=$(sed -n 's/^port=//p' "$state")
user=$(sed -n 's/^user=//p' "$state")
driver=$(ls /usr/lib/*/odbc/psqlodbcw.so /usr/lib/odbc/psqlodbcw.so 2>/dev/null | head -n 1 || true)
dir=$(sed -n 's/^dir=//p' "$state")
psql() {
  local client
  client="$(ls -d /usr/lib/postgresql/*/bin | sort -V | tail -n 1)/psql"
  if [ "$(id -u)" -eq 0 ]; then
    runuser -u "$user" -- "$client" -h "$dir" -p "$port" -d postgres -qAt "$@"
  else
    "$client" -h "$dir" -p "$port" -U "$user" -d postgres -qAt "$@"
  fi
}
# Protocol=7.4-1: the driver rolls back whole transactions on errors (the
# store does so anyway) instead of wrapping every statement in a savepoint.
postmaster=$(head -n 1 "$dir/data/postmaster.pid")
seconds=""
client=""
server=""
for round in $(seq "$rounds"); do
  psql -c "CREATE DATABASE bench$round"
  postgres="DRIVER=$driver;Server=127.0.0.1;Port=$port;Uid=$user;Database=bench$round;Protocol=7.4-1;"
  before=$(server_cpu "$postmaster")
  start=$(now)
  cpu "$tool" store add --db "$postgres" "${files[@]}" >"$work/postgres.ids"
  seconds=$(best "$seconds" "$(since "$start")")
  sleep 0.2 # the server's process for the connection ends
  client=$(best "$client" "$cpu_used")
  server=$(best "$server" "$(awk -v a="$before" -v b="$(server_cpu "$postmaster")" 'BEGIN { print b - a }')")
done
report "PostgreSQL" "$seconds" "$(stored_bytes "$postgres")"
printf '\nprocessor seconds (least of %d): SQLite tool %.2f; PostgreSQL tool %.2f, server %.2f\n' \
  "$rounds" "$sqlite_cpu" "$client" "$server"

# Spot check: a few files read back byte for byte from each engine.
for i in 0 $((${#files[@]} / 2)) $((${#files[@]} - 1)); do
  id=$(sed -n "$((i + 1))p" "$work/sqlite.ids")
  "$tool" store get --db "$sqlite" "$id" | cmp -s - "${files[$i]}" || echo "SQLite: ${files[$i]} differs"
  id=$(sed -n "$((i + 1))p" "$work/postgres.ids")
  "$tool" store get --db "$postgres" "$id" | cmp -s - "${files[$i]}" ||
    echo "PostgreSQL: ${files[$i]} differs"
done
echo
"$tool" store stats --db "$sqlite"
