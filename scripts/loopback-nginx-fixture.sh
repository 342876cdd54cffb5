#!/usr/bin/env bash
# The nginx of the Windows build's tests: the test program runs under Wine
# and cannot start a program of the build machine, so CTest starts this one
# first (fixture "nginx") and the tests read where it is from STATE_FILE.
#
# Usage: scripts/loopback-nginx-fixture.sh start STATE_FILE
#        scripts/loopback-nginx-fixture.sh stop STATE_FILE
#
# start: runs scripts/loopback-nginx.sh in a new temporary folder on a
# loopback address derived from this script's process id, waits until it
# accepts connections and writes STATE_FILE as one line: FOLDER ADDRESS PID.
# stop: stops that nginx and removes its folder and STATE_FILE (nothing
# when STATE_FILE is missing).
set -euo pipefail
action=${1:?start or stop}
state=${2:?state file}
here=$(cd "$(dirname "$0")" && pwd)

case $action in
start)
  [ -f "$state" ] && "$0" stop "$state"
  dir=$(mktemp -d "${TMPDIR:-/tmp}/zelvarpack-nginx.XXXXXX")
  # 127.192-255.x.y: apart from the test programs' own addresses (kind 3).
  pid=$$
  address="127.$((192 | ((pid >> 16) & 63))).$(((pid >> 8) & 255)).$((pid & 255))"
  setsid "$here/loopback-nginx.sh" "$dir" "$address" >"$dir/launcher.log" 2>&1 </dev/null &
  nginx=$!
  for _ in $(seq 1 200); do
    if (exec 3<>"/dev/tcp/$address/80") 2>/dev/null; then
      echo "$dir $address $nginx" >"$state"
      exit 0
    fi
    kill -0 "$nginx" 2>/dev/null || break
    sleep 0.1
  done
  cat "$dir/launcher.log" >&2
  kill "$nginx" 2>/dev/null || true
  rm -rf "$dir"
  exit 1
  ;;
stop)
  [ -f "$state" ] || exit 0
  read -r dir _ nginx <"$state"
  kill "$nginx" 2>/dev/null || true
  for _ in $(seq 1 50); do
    kill -0 "$nginx" 2>/dev/null || break
    sleep 0.1
  done
  rm -rf "$dir" "$state"
  ;;
*)
  echo "usage: $0 start|stop STATE_FILE" >&2
  exit 2
  ;;
esac
