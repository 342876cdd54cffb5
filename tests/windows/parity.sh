#!/bin/bash
# Linux/Windows parity: runs the Linux zelvarpack and the Windows
# zelvarpack.exe (under Wine) on the same realistic inputs and compares what
# they write.
#
# Usage: tests/windows/parity.sh LINUX_TOOL WINDOWS_TOOL [WORK_DIR]
#   e.g. tests/windows/parity.sh build/default/zelvarpack build/windows/zelvarpack.exe
#
# Byte-identical: HTML and CSS token streams, the meta finder, minified
# sheets, stored sheets and scripts (ids and cache files), identifiers,
# downloads from a loopback server (bodies, counters, cache entries), sprite
# sheet ids, keys and percentages, and `optimize` on the sample site (page
# and counters, sprite-sheet ids masked). PNG sprite sheets must decode to
# the same pixels; JPEG sheets must have the same size and a PSNR of at
# least $JPEG_MIN_PSNR dB against the Linux sheet (Wine's GDI+ ignores the
# JPEG quality parameter, so the bytes differ by design).
#
# Inputs: the repository's testdata and fuzz corpora, the sample site, and
# files of Debian packages (HTML manuals under /usr/share/doc, stylesheets
# and scripts under /usr/share, Apache's icons). Prints one line per
# difference and a summary; exits 1 when anything differs.
set -u
export LC_ALL=C

if [ $# -lt 2 ]; then
  sed -n '4,6p' "$0" >&2
  exit 2
fi
LINUX_TOOL=$(readlink -f "$1")
WINDOWS_TOOL=$(readlink -f "$2")
HERE=$(cd "$(dirname "$0")/../.." && pwd)
WORK=${3:-$(mktemp -d "${TMPDIR:-/tmp}/zp-parity.XXXXXX")}
mkdir -p "$WORK"
WORK=$(readlink -f "$WORK")
JPEG_MIN_PSNR=${JPEG_MIN_PSNR:-30}
# What starts the Windows tool; RUNNER=env with a Linux tool as the second
# argument checks the script itself.
RUNNER=${RUNNER:-wine}
MAX_PACKAGE_FILES=${MAX_PACKAGE_FILES:-25}

export WINEPREFIX=${WINEPREFIX:-$(dirname "$WINDOWS_TOOL")/wine}
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY
# One Wine server for the whole run: each program then starts in a moment.
# It goes away by itself a minute after the last program ends.
wineserver -p60 || true

SERVER_PID=
cleanup() {
  if [ -n "$SERVER_PID" ]; then kill "$SERVER_PID" 2>/dev/null; wait "$SERVER_PID" 2>/dev/null; fi
}
trap cleanup EXIT

checks=0
differences=0
declare -A kinds_checked kinds_differing

note() {  # kind, description
  differences=$((differences + 1))
  kinds_differing[$1]=$(( ${kinds_differing[$1]:-0} + 1 ))
  echo "DIFFERS [$1] $2"
}
counted() { checks=$((checks + 1)); kinds_checked[$1]=$(( ${kinds_checked[$1]:-0} + 1 )); }

# run SIDE OUTDIR ARGS...: runs one tool in OUTDIR, stdout, stderr and the
# exit status into OUTDIR/{out,err,rc}.
run() {
  local side=$1 dir=$2
  shift 2
  mkdir -p "$dir/cache" "$dir/cache2"  # the tools write only into folders that exist
  if [ "$side" = linux ]; then
    (cd "$dir" && "$LINUX_TOOL" "$@" >out 2>err; echo $? >rc)
  else
    (cd "$dir" && $RUNNER "$WINDOWS_TOOL" "$@" >out 2>err; echo $? >rc)
  fi
}

# same KIND NAME ARGS...: both tools on the same arguments; stdout and the
# exit status must be identical.
same() {
  local kind=$1 name=$2
  shift 2
  local dir="$WORK/cmd/$kind/$name"
  run linux "$dir/L" "$@"
  run windows "$dir/W" "$@"
  counted "$kind"
  if ! cmp -s "$dir/L/out" "$dir/W/out" || ! cmp -s "$dir/L/rc" "$dir/W/rc"; then
    note "$kind" "$name: zelvarpack $*"
  fi
}

# same_tree KIND A B: every file under two folders identical.
same_tree() {
  counted "$1"
  if ! diff -r -q "$2" "$3" >/dev/null 2>&1; then
    note "$1" "$(diff -r -q "$2" "$3" 2>&1 | head -3 | tr '\n' ' ')"
  fi
}

pick() {  # up to N files from find's arguments, in a fixed order
  local n=$1
  shift
  find "$@" -type f -size -300k 2>/dev/null | sort | head -n "$n"
}

mapfile -t HTML < <(
  ls "$HERE"/testdata/*.html "$HERE"/testdata/page/*.html "$HERE"/testdata/site/*.html \
    "$HERE"/fuzz/corpus/html/* 2>/dev/null | head -n 40
  pick "$MAX_PACKAGE_FILES" /usr/share/doc -name '*.html')
mapfile -t CSS < <(
  find "$HERE/testdata" -name '*.css' | sort
  ls "$HERE"/fuzz/corpus/css/* 2>/dev/null | head -n "$MAX_PACKAGE_FILES"
  pick "$MAX_PACKAGE_FILES" /usr/share -name '*.css')
mapfile -t JS < <(
  find "$HERE/testdata" -name '*.js' | sort
  pick "$MAX_PACKAGE_FILES" /usr/share/javascript /usr/share/doc -name '*.js')

echo "inputs: ${#HTML[@]} HTML, ${#CSS[@]} CSS, ${#JS[@]} JS files; work folder $WORK"

i=0
for f in "${HTML[@]}"; do
  i=$((i + 1))
  same html-tokens "$i" html-tokens "$f"
  same html-constructor "$i" html-tokens --constructor "$f"
  same meta "$i" meta "$f"
  same id-content "html$i" id --content "$f"
done
i=0
for f in "${CSS[@]}"; do
  i=$((i + 1))
  same css-tokens "$i" css-tokens "$f"
  same minify-css "$i" minify-css --name "http://example.test/css/a.css" "$f"
  same css-store "$i" css store --cache cache --name "http://example.test/a.css" "$f"
done
# The stored sheets and their gzip twins, byte for byte.
for i in $(seq 1 ${#CSS[@]}); do
  same_tree css-store-files "$WORK/cmd/css-store/$i/L/cache" "$WORK/cmd/css-store/$i/W/cache"
done
same minify-css all minify-css --name "http://example.test/all.css" "${CSS[@]:0:20}"
i=0
for f in "${JS[@]}"; do
  i=$((i + 1))
  same js-store "$i" js store --cache cache "$f"
  same_tree js-store-files "$WORK/cmd/js-store/$i/L/cache" "$WORK/cmd/js-store/$i/W/cache"
  same id-content "js$i" id --content "$f"
done
for n in 0 1 -1 42 2147483647 -2147483648 4294967295 123456789; do
  same id-number "n$n" id --number "$n"
done

# Downloads and the page optimiser against one loopback server (the Linux
# tool's own server, on port 80 as downloads always use it).
ADDRESS="127.$(( ($$ >> 8) % 200 + 20 )).$(( $$ % 256 )).$(( RANDOM % 200 + 20 ))"
SITE="$WORK/site"
cp -r "$HERE/testdata/site" "$SITE"
"$LINUX_TOOL" serve --listen "$ADDRESS:80" --root "$SITE" >"$WORK/serve.out" 2>&1 &
SERVER_PID=$!
for _ in $(seq 50); do
  grep -q . "$WORK/serve.out" 2>/dev/null && break
  sleep 0.1
done
mapfile -t SITE_FILES < <(cd "$SITE" && find . -type f ! -name '*.py' | sed 's|^\./||' | sort)
i=0
for f in "${SITE_FILES[@]}"; do
  i=$((i + 1))
  for pass in 1 2; do  # the second pass revalidates the cache entry
    dir="$WORK/cmd/fetch/$i"
    run linux "$dir/L" fetch "http://$ADDRESS/$f" --cache cache -o body --timeout 10
    run windows "$dir/W" fetch "http://$ADDRESS/$f" --cache cache -o body --timeout 10
    counted fetch
    for part in body err rc; do
      if ! cmp -s "$dir/L/$part" "$dir/W/$part"; then
        note fetch "$f (pass $pass): $part"
      fi
    done
  done
  same_tree fetch-cache "$WORK/cmd/fetch/$i/L/cache" "$WORK/cmd/fetch/$i/W/cache"
done

# Sprite sheets: Apache's icons (GIF and PNG) and the site's photographs.
mapfile -t ICONS < <(ls /usr/share/apache2/icons/*.gif /usr/share/apache2/icons/*.png 2>/dev/null |
  grep -v -e '/apache_pb' | head -n 80)
SPRITES=("${ICONS[@]}" "$SITE"/img/thumb-*.jpg "$SITE"/img/*.png)
same sprite ids sprite --cache cache "${SPRITES[@]}"
same sprite scaled sprite --cache cache2 --size 20x20 "${ICONS[0]}" --size 10x30 --margins 1,2,3,4 \
  "${ICONS[1]}" "${SITE}/img/thumb-lake.jpg"
# sprite prints "<kind> <id>" lines before the per-image lines.
for name in ids scaled; do
  cache=cache
  [ "$name" = scaled ] && cache=cache2
  while read -r kind id _; do
    case "$kind" in gif | jpg | png24 | png32) ;; *) continue ;; esac
    case "$id" in "{"*) ;; *) continue ;; esac  # "-": no sheet of this kind
    dir="$WORK/cmd/sprite/$name"
    (cd "$dir/L" && "$LINUX_TOOL" sprite get --cache "$cache" "$kind" "$id" -o "sheet-$kind" >"get-$kind" 2>&1)
    (cd "$dir/W" && $RUNNER "$WINDOWS_TOOL" sprite get --cache "$cache" "$kind" "$id" -o "sheet-$kind" >"get-$kind" 2>&1)
    counted sprite-index
    cmp -s "$dir/L/get-$kind" "$dir/W/get-$kind" || note sprite-index "$name $kind index"
    counted "sprite-pixels-$kind"
    verdict=$(python3 "$HERE/tests/windows/compare_images.py" "$dir/L/sheet-$kind" "$dir/W/sheet-$kind" \
      "$JPEG_MIN_PSNR")
    echo "sheet $name $kind: $verdict"
    case "$verdict" in same* | within*) ;; *) note "sprite-pixels-$kind" "$name: $verdict" ;; esac
  done <"$WORK/cmd/sprite/$name/L/out"
done

# The page optimiser on the sample site's pages, resources fetched from the
# loopback server.
for page in index.html bootstrap.html jquery.html; do
  dir="$WORK/cmd/optimize/$page"
  run linux "$dir/L" optimize --url "http://$ADDRESS/$page" --cache cache -o page.html --timeout 20
  run windows "$dir/W" optimize --url "http://$ADDRESS/$page" --cache cache -o page.html --timeout 20
  for side in L W; do
    sed -E 's/IS\.zp\?[^"&)'"'"' ]*/IS.zp?SHEET/g' "$dir/$side/page.html" >"$dir/$side/page.masked" 2>/dev/null
    sed -E 's/"\{[0-9A-F-]{36}\}"/"{ID}"/g' "$dir/$side/out" >"$dir/$side/out.masked"
  done
  counted optimize-page
  cmp -s "$dir/L/page.masked" "$dir/W/page.masked" || note optimize-page "$page"
  # The counters must be equal, except that bytesAfter and bytesAfterGzip
  # count the encoded sprite sheets, whose sizes depend on the platform's
  # encoders: they may differ by exactly the sheets' size difference.
  counted optimize-counters
  verdict=$(python3 - "$dir" <<'PY'
import json, os, sys
d = sys.argv[1]
sides = {s: json.load(open(os.path.join(d, s, "out"))) for s in "LW"}
delta = 0
for key, folder in (("gifSheetId", "gif"), ("jpgSheetId", "jpg"), ("png24SheetId", "jpg"),
                    ("png32SheetId", "png")):
    ids = {s: sides[s].get(key, "") for s in "LW"}
    if ids["L"] != ids["W"]:
        print(f"{key} differs")
        sys.exit()
    if ids["L"]:
        size = {s: os.path.getsize(os.path.join(d, s, "cache", folder, ids[s])) for s in "LW"}
        delta += size["W"] - size["L"]
expected = dict(sides["L"])
for key in ("bytesAfter", "bytesAfterGzip"):
    expected[key] += delta
if expected == sides["W"]:
    print(f"equal (sheet bytes {delta:+d})")
else:
    print("differ: " + ", ".join(k for k in expected if expected[k] != sides["W"].get(k)))
PY
)
  echo "optimize $page: counters $verdict"
  case "$verdict" in equal*) ;; *) note optimize-counters "$page: $verdict" ;; esac
done

echo
echo "kind                      checked  differing"
for kind in $(printf '%s\n' "${!kinds_checked[@]}" | sort); do
  printf '%-25s %7d  %9d\n' "$kind" "${kinds_checked[$kind]}" "${kinds_differing[$kind]:-0}"
done
echo "parity: $checks checks, $differences differing"
[ "$differences" -eq 0 ]
