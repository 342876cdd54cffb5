#!/usr/bin/env bash
# Runs a throw-away PostgreSQL server for tests and benchmarks on 127.0.0.1.
#
# Usage: scripts/loopback-postgres.sh start STATE_FILE
#        scripts/loopback-postgres.sh stop STATE_FILE
#
# start: makes a new temporary folder, initialises a cluster in it owned by
# an unprivileged account (the postgres account when run as root, which
# initdb refuses, else the caller), starts the server on a free port of
# 127.0.0.1 with its socket inside that folder (no other address, no system
# socket folder), waits until it accepts connections and writes STATE_FILE
# as lines of NAME=VALUE: dir, port, user (the cluster's superuser, trusted
# without a password from loopback only).
#
# stop: stops the server that STATE_FILE names, removes its folder and
# STATE_FILE. Does nothing when STATE_FILE is missing.
set -euo pipefail
action=${1:?start or stop}
state=${2:?state file}

bindir=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -n 1)
[ -x "$bindir/initdb" ] || {
  echo "PostgreSQL server programs not found (install postgresql)" >&2
  exit 1
}

as_owner() {
  if [ "$(id -u)" -eq 0 ]; then
    runuser -u postgres -- "$@"
  else
    "$@"
  fi
}

case $action in
start)
  # A server left behind by an interrupted run goes first.
  [ -f "$state" ] && "$0" stop "$state"
  dir=$(mktemp -d "${TMPDIR:-/tmp}/zelvarpack-pg.XXXXXX")
  user=$(id -un)
  if [ "$(id -u)" -eq 0 ]; then
    chown postgres: "$dir"
    user=postgres
  fi
  as_owner "$bindir/initdb" -D "$dir/data" -U "$user" --auth=trust --encoding=UTF8 \
    --locale=C --no-sync >"$dir/initdb.log" 2>&1 || {
    cat "$dir/initdb.log" >&2
    rm -rf "$dir"
    exit 1
  }
  # A few tries in case another program takes the chosen port first.
  for _ in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 20000))
    ss -Hltn "( sport = :$port )" 2>/dev/null | grep -q . && continue
    if as_owner "$bindir/pg_ctl" start -w -t 60 -D "$dir/data" -l "$dir/server.log" \
      -o "-c listen_addresses=127.0.0.1 -c port=$port -c unix_socket_directories=$dir \
          -c max_connections=50 -c shared_buffers=64MB" >/dev/null; then
      printf 'dir=%s\nport=%s\nuser=%s\n' "$dir" "$port" "$user" >"$state"
      exit 0
    fi
  done
  cat "$dir/server.log" >&2
  rm -rf "$dir"
  exit 1
  ;;
stop)
  [ -f "$state" ] || exit 0
  dir=$(sed -n 's/^dir=//p' "$state")
  case $dir in
  */zelvarpack-pg.*) ;;
  *)
    echo "refusing to remove '$dir'" >&2
    exit 1
    ;;
  esac
  as_owner "$bindir/pg_ctl" stop -m fast -w -D "$dir/data" >/dev/null 2>&1 || true
  rm -rf "$dir" "$state"
  ;;
*)
  echo "usage: $0 start|stop STATE_FILE" >&2
  exit 2
  ;;
esac
