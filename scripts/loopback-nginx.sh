#!/usr/bin/env bash
# Runs a throw-away nginx for tests and benchmarks on ADDRESS:80 and
# ADDRESS:443 (a loopback address such as 127.0.0.9), serving DIR/www.
#
# Usage: scripts/loopback-nginx.sh DIR ADDRESS
#
# Creates, inside DIR only: a certificate authority for this run (ca.crt),
# a server certificate for ADDRESS signed by it, nginx.conf and the log and
# temporary folders; then replaces itself with nginx in the foreground (one
# process, no daemon), so the caller stops it by killing the process it
# started. The caller trusts DIR/ca.crt for the run; nothing is installed
# into the system's trust store.
#
# Locations with a behaviour of their own:
#   /gz/...        answered with Content-Encoding gzip (weak ETag)
#   /expires/...   Cache-Control max-age=3600 and an Expires header
#   /redirect/X    302 to /X
set -euo pipefail
dir=$1
address=$2
mkdir -p "$dir/www" "$dir/logs" "$dir/temp"

key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }
key "$dir/ca.key"
openssl req -x509 -new -key "$dir/ca.key" -out "$dir/ca.crt" -days 2 \
  -subj "/CN=loopback test authority $address" 2>/dev/null
key "$dir/server.key"
openssl req -new -key "$dir/server.key" -out "$dir/server.csr" -subj "/CN=$address" 2>/dev/null
printf 'subjectAltName=IP:%s\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n' \
  "$address" >"$dir/server.ext"
openssl x509 -req -in "$dir/server.csr" -CA "$dir/ca.crt" -CAkey "$dir/ca.key" \
  -CAcreateserial -out "$dir/server.crt" -days 2 -extfile "$dir/server.ext" 2>/dev/null

cat >"$dir/nginx.conf" <<CONF
daemon off;
master_process off;
worker_processes 1;
pid $dir/nginx.pid;
error_log $dir/logs/error.log warn;
events { worker_connections 1024; }
http {
  access_log off;
  client_body_temp_path $dir/temp/body;
  proxy_temp_path $dir/temp/proxy;
  fastcgi_temp_path $dir/temp/fastcgi;
  uwsgi_temp_path $dir/temp/uwsgi;
  scgi_temp_path $dir/temp/scgi;
  types { text/css css; application/javascript js; text/html html; }
  default_type application/octet-stream;
  server {
    listen $address:80;
    listen $address:443 ssl;
    server_name _;
    ssl_certificate $dir/server.crt;
    ssl_certificate_key $dir/server.key;
    root $dir/www;
    location /gz/ {
      gzip on;
      gzip_types *;
      gzip_min_length 0;
    }
    location /expires/ { expires 1h; }
    location ~ ^/redirect/(.*)\$ { return 302 /\$1; }
  }
}
CONF
exec nginx -p "$dir" -c "$dir/nginx.conf" -e "$dir/logs/error.log"
