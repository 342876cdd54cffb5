#!/usr/bin/env bash
# The engine's main job, as a site runs it: an nginx with the ZelvarPack
# module in front of a web site.
#
# Builds the library and the nginx module, starts two throw-away nginx
# servers on a loopback address (nothing is installed into the system's
# nginx configuration):
#   http://ADDRESS/       the origin: the sample site (testdata/site) as it is
#   http://ADDRESS:8080/  the front: proxies the origin, with the module on
# loads the sample page through both (once cold, once warm from the cache)
# and prints what the page cost before and after. Both keep running so the
# two addresses can be opened side by side in a browser.
#
# Usage: scripts/demo.sh [SITE_DIR [PAGE]]   (default: testdata/site index.html)
#        scripts/demo.sh stop                 stops both servers
# Configuration, logs and the cache stay in build/demo/.
set -euo pipefail
cd "$(dirname "$0")/.."
work=$PWD/build/demo

stop() {
  for name in front origin; do
    if [ -f "$work/$name.conf" ] && [ -f "$work/$name.pid" ]; then
      nginx -p "$work" -c "$work/$name.conf" -e "$work/logs/$name.error.log" -s stop 2>/dev/null ||
        true
    fi
  done
}
if [ "${1:-}" = stop ]; then
  stop
  echo "stopped"
  exit 0
fi

site=${1:-testdata/site}
page=${2:-index.html}

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build build/default -j"$(nproc)" --target ZelvarPackCore ngx_http_zelvarpack_module >/dev/null
module=$PWD/build/default/ngx_http_zelvarpack_module.so

stop
rm -rf "$work"
mkdir -p "$work/www" "$work/cache" "$work/logs" "$work/temp"
cp -r "$site"/. "$work/www/"

# The optimiser fetches the page's resources on port 80, so the origin
# listens there; the front takes another port of the same address.
address=127.0.$((RANDOM % 200 + 20)).$((RANDOM % 200 + 20))
user=""
[ "$(id -u)" -eq 0 ] && user="user root root;"
temps="client_body_temp_path $work/temp/body; proxy_temp_path $work/temp/proxy;
  fastcgi_temp_path $work/temp/fastcgi; uwsgi_temp_path $work/temp/uwsgi;
  scgi_temp_path $work/temp/scgi;"

cat >"$work/origin.conf" <<CONF
$user
worker_processes 1;
pid $work/origin.pid;
error_log $work/logs/origin.error.log warn;
events { worker_connections 1024; }
http {
  include /etc/nginx/mime.types;
  log_format sent '\$remote_addr "\$request" \$status \$bytes_sent';
  access_log $work/logs/origin.access.log sent;
  $temps
  server {
    listen $address:80;
    root $work/www;
  }
}
CONF

cat >"$work/front.conf" <<CONF
load_module $module;
$user
worker_processes 2;
pid $work/front.pid;
error_log $work/logs/front.error.log warn;
events { worker_connections 1024; }
http {
  include /etc/nginx/mime.types;
  log_format zelvarpack '\$remote_addr "\$request" \$status \$body_bytes_sent '
                        '\$zelvarpack_result bytes=\$zelvarpack_bytes_before/\$zelvarpack_bytes_after '
                        'requests=\$zelvarpack_requests_before/\$zelvarpack_requests_after '
                        '\$bytes_sent';
  access_log $work/logs/front.access.log zelvarpack;
  $temps
  zelvarpack_cache $work/cache;
  server {
    listen $address:8080;
    location / {
      zelvarpack on;
      zelvarpack_server_address $address;
      proxy_pass http://$address:80;
    }
    location ~ /[CJI]S\.zp\$ {
      zelvarpack_handlers;
    }
  }
}
CONF

nginx -p "$work" -c "$work/origin.conf" -e "$work/logs/origin.error.log"
nginx -p "$work" -c "$work/front.conf" -e "$work/logs/front.error.log"
for _ in $(seq 50); do
  curl -fsS -o /dev/null "http://$address:8080/$page" 2>/dev/null && break
  sleep 0.1
done

# A headless browser loads the page straight from the origin, then through
# the module (cold: the module fetches and combines; then warm, from the
# cache). Each server's access log tells the requests and bytes it sent.
python3 - "$work" "http://$address/$page" "http://$address:8080/$page" <<'PY'
import os, sys, time
work, direct, through = sys.argv[1:]
sys.path.insert(0, os.path.join(os.getcwd(), "tests", "browser"))
import chromium

def sent(log):
    lines = [l.split() for l in open(log) if l.strip()]
    return len(lines), sum(int(l[-1]) for l in lines)

logs = {name: os.path.join(work, "logs", name + ".access.log") for name in ("origin", "front")}
counts = []
with chromium.Browser() as browser:
    for name, url in (("origin", direct), ("front", through), ("front", through)):
        open(logs[name], "w").close()
        page = browser.load(url)
        page.close()
        time.sleep(0.3)  # the access log line follows the response
        counts.append(sent(logs[name]))
before, after = counts[0], counts[2]
print("requests: %d before, %d after" % (before[0], after[0]))
print("bytes:    %.1f KB before, %.1f KB after (headers included, as sent)"
      % (before[1] / 1024, after[1] / 1024))
PY
cat <<TEXT
Open side by side in a browser:
  http://$address/$page        the site as it is
  http://$address:8080/$page   the same site through nginx with the module
Logs: build/demo/logs/ (front.access.log has the module's counters per page).
Stop both servers: scripts/demo.sh stop
TEXT
