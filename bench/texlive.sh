#!/usr/bin/env bash
# Measures trovalis against kpsewhich on the machine's TeX Live trees and
# writes the figures, as ratios measured in the same run, to BENCHMARKS.md:
#
#   (a) one request in a fresh process, the shared region warm, against
#       kpsewhich; and, by the tool and by a small C program that links the
#       library, against an empty process (/bin/true);
#   (b) 1,000 requests: one trovalis process, 1,000 kpsewhich runs, and one
#       kpsewhich run with all 1,000 names;
#   (c) the cold start: the first process builds the region from the ls-R
#       files;
#   (d) the cached hit inside one process (Google Benchmark).
#
# Usage: bench/texlive.sh [--runs N] [--output FILE]
# Installs hyperfine and TeX Live from Debian's packages when they are
# missing. Run it on a quiet machine: every figure is a wall-clock time.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

runs=20
output=$root/BENCHMARKS.md
while [ $# -gt 0 ]; do
  case $1 in
    --runs) runs=$2; shift 2 ;;
    --output) output=$2; shift 2 ;;
    -h|--help) sed -n '2,14p' "$0"; exit 0 ;;
    *) echo "bench/texlive.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done

SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO=sudo; fi
if ! command -v hyperfine >/dev/null || ! command -v kpsewhich >/dev/null; then
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends hyperfine texlive-base \
    texlive-latex-base texlive-fonts-recommended texlive-latex-extra texlive-fonts-extra >/dev/null
fi

echo "Building (Release) ..."
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DTROVALIS_BUILD_TESTS=OFF \
  -DTROVALIS_BUILD_BENCHMARKS=ON >/dev/null
cmake --build build-bench >/dev/null

work=$(mktemp -d)
export TROVALIS_INSTANCE=bench$$
export APPDATA=$work/user
uid=$(id -u)
region=/dev/shm/zelvan-tds-mem-$uid-$TROVALIS_INSTANCE
lock=/dev/shm/sem.zelvan-tds-cache-$uid-$TROVALIS_INSTANCE
holder=/dev/shm/zelvan-tds-cache-$uid-$TROVALIS_INSTANCE.holder
cleanup() { rm -rf "$work"; rm -f "$region" "$lock" "$holder"; }
trap cleanup EXIT

cmake --install build-bench --prefix "$work/dist" >/dev/null
T=$work/dist/bin/trovalis
"$T" init -o "$work/dist/TEXMF.INI" >/dev/null
mkdir -p "$work/cwd" "$APPDATA/Zelvan TeX"
: > "$APPDATA/Zelvan TeX/TEXMF.INI"
cd "$work/cwd"   # kpsewhich looks into the current directory first

# The trees and their size.
trees=$(sed -n 's/^TEXMF={\(.*\)}$/\1/p' "$work/dist/TEXMF.INI" | tr ',' ' ')
files=0
for t in $trees; do
  [ -f "$t/ls-R" ] && files=$((files + $(grep -v -e ':$' -e '^%' -e '^$' "$t/ls-R" | wc -l)))
done

# 1,000 names that both find, of the kinds kpsewhich tells from the suffix.
awk -v want=1000 '
  /:$/ { dir = $0; next }
  /^%/ || $0 == "" { next }
  { n = split($0, p, "."); ext = p[n] }
  (dir ~ /^\.\/tex\// && (ext == "sty" || ext == "cls")) ||
  (dir ~ /^\.\/fonts\/tfm\// && ext == "tfm") ||
  (dir ~ /^\.\/fonts\/enc\// && ext == "enc") {
    if (!($0 in seen)) { seen[$0] = 1; names[++count] = $0 }
  }
  END {
    step = int(count / want); if (step < 1) step = 1
    for (i = 1; i <= count && printed < want; i += step) { print names[i]; printed++ }
  }' /usr/share/texlive/texmf-dist/ls-R > "$work/names"
awk '{ n = split($0, p, "."); t = (p[n] == "tfm" || p[n] == "enc") ? p[n] : "tex";
       print "<" t ">" $0 }' "$work/names" > "$work/requests"
n_names=$(wc -l < "$work/names")
watched=$((4 + 3 * $(echo $trees | wc -w)))

"$T" find tex article.cls >/dev/null   # the region is built: warm from here
region_bytes=$("$T" report | sed -n 's/.*it uses only \([0-9]*\) bytes.*/\1/p')
region_max=$("$T" report | sed -n 's/.*maximum virtual memory \([0-9]*\)$/\1/p')

json=$work/h.json
mean_ms() { # mean of command $1 (0-based) in the last hyperfine run, in ms
  awk -v want="$1" '/"mean":/ { if (i++ == want) { gsub(/[^0-9.e-]/, "", $2); printf "%.3f", $2 * 1000 } }' "$json"
}
median_ms() { # the same, median
  awk -v want="$1" '/"median":/ { if (i++ == want) { gsub(/[^0-9.e-]/, "", $2); printf "%.3f", $2 * 1000 } }' "$json"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", a / b }'; }
ratio2() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo "(a) one request in a fresh process ..."
hyperfine -N --warmup 10 --runs $((runs * 5)) --export-json "$json" \
  "$T find tex article.cls" "kpsewhich article.cls" "/bin/true" >/dev/null
a_ours=$(mean_ms 0); a_kpse=$(mean_ms 1); a_empty=$(mean_ms 2)

# What a TeX program that links the library pays: one request from a C
# program, against the tool (which also loads the library with dlopen and
# carries its own C++ runtime) and an empty process. Medians of many runs:
# an empty process takes well under a millisecond, so the mean follows
# whatever else the machine is doing.
cat > "$work/lookup.c" <<'C'
#include <stdio.h>
#include "trovalis.h"
int main(void) {
  const char *r = QDMSearch("tex", "article.cls");
  return r != NULL && puts(r) >= 0 ? 0 : 1;
}
C
cc -O2 -o "$work/dist/bin/lookup" "$work/lookup.c" -I"$work/dist/include" \
  "$work/dist/lib/trovalis.so" -Wl,-rpath,"$work/dist/lib"
hyperfine -N --warmup 20 --runs $((runs * 25)) --export-json "$json" \
  "$T find tex article.cls" "$work/dist/bin/lookup" "/bin/true" >/dev/null
e_tool=$(median_ms 0); e_host=$(median_ms 1); e_empty=$(median_ms 2)

echo "(b) $n_names requests ..."
hyperfine --warmup 1 --runs "$runs" --export-json "$json" \
  "$T request - < $work/requests > /dev/null" \
  "kpsewhich $(tr '\n' ' ' < "$work/names") > /dev/null" >/dev/null
b_ours=$(mean_ms 0); b_kpse_one=$(mean_ms 1)
hyperfine --runs 2 --export-json "$json" \
  "xargs -n 1 kpsewhich < $work/names > /dev/null" >/dev/null
b_kpse_many=$(mean_ms 0)

echo "(c) the cold start ..."
hyperfine -N --warmup 2 --runs "$runs" --prepare "rm -f $region $lock" --export-json "$json" \
  "$T find tex article.cls" >/dev/null
c_ours=$(mean_ms 0)

echo "(d) the cached hit in one process ..."
d_out=$(TROVALIS_BENCH_TEXMF_INI=$work/dist/TEXMF.INI \
  "$root/build-bench/bench/trovalis_bench" --benchmark_filter='TexLive' \
  --benchmark_repetitions=5 --benchmark_report_aggregates_only=true 2>/dev/null)
d_hit=$(echo "$d_out" | awk '/BM_TexLiveHit.*_median/ { print $2 " " $3 }')
d_rot=$(echo "$d_out" | awk '/BM_TexLiveRotating.*_median/ { print $2 " " $3 }')

ours_ok() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(a <= b) }'; }
fits="yes: $region_bytes of $region_max bytes"
ours_ok "$region_bytes" "$region_max" || fits="no"

# The section bench/scale.sh writes is kept, at the end.
kept=$(sed -n '/^<!-- bench\/scale.sh writes this section/,$p' "$output" 2>/dev/null || true)
cat > "$output" <<EOF
# Benchmarks

trovalis against kpsewhich, TeX Live's own finder, on the same trees, made
by \`bench/texlive.sh\` (hyperfine for whole processes, Google Benchmark in
process). Every ratio compares figures measured in the same run.

- Date: $(date -u +%Y-%m-%d)
- Machine: $(lscpu | sed -n 's/^Model name: *//p' | head -1), $(nproc) cores, $(free -g | awk '/^Mem:/ { print $2 }') GiB; $(uname -sr)
- Trees: $(echo $trees | sed 's/ /, /g'); $files files in their ls-R files
- kpsewhich: $(kpsewhich --version | head -1); trovalis $("$T" --version | cut -d' ' -f2)
- The shared region for these trees: $region_bytes bytes in use of $region_max
  (sized for these trees, \`TROVALIS_MAP_SIZE\` unset; the trees fit: $fits)

| measurement | trovalis | kpsewhich | ratio |
|---|---|---|---|
| (a) one request, fresh process, warm region | $a_ours ms | $a_kpse ms | $(ratio "$a_kpse" "$a_ours")× faster |
| (a) the same, against an empty process (\`/bin/true\`, $e_empty ms; medians) | $e_tool ms | — | $(ratio2 "$e_tool" "$e_empty")× an empty process |
| (a) one request from a C program that links the library, against an empty process (medians) | $e_host ms | — | $(ratio2 "$e_host" "$e_empty")× an empty process |
| (b) $n_names requests, one trovalis process vs one kpsewhich run with all names | $b_ours ms | $b_kpse_one ms | $(ratio "$b_kpse_one" "$b_ours")× faster |
| (b) $n_names requests, one trovalis process vs $n_names kpsewhich runs | $b_ours ms | $b_kpse_many ms | $(ratio "$b_kpse_many" "$b_ours")× faster |
| (c) cold start: first process builds the region from the ls-R files, vs one kpsewhich run | $c_ours ms | $a_kpse ms | $(ratio "$a_kpse" "$c_ours")× faster |
| (d) cached hit in process (median; rotating over $n_names names) | ${d_hit} (${d_rot}) | — | — |

(a), (c): \`trovalis find tex article.cls\` and \`kpsewhich article.cls\`
(mean of $((runs * 5)) and $runs runs). A fresh process's request is
measured against starting an empty process (\`/bin/true\`) in one run of
$((runs * 25)) each (medians), by the tool and by a C program that links the
library and makes the same request, as a TeX program would: it must stay
within 1.6 times an empty process. It includes the start-up check of the
files the last reset read ($watched of them here: \`TEXMF.INI\`, the per-user
file, \`SETUP.INI\`, the network index and three per tree), one \`stat\`
each. For scale: the mean of an empty process in the first run was
$a_empty ms. (b): the $n_names names are .sty,
.cls, .tfm and .enc files of the tree; \`trovalis request -\` reads them from
a file (the time includes the shell that redirects it), kpsewhich gets them
as arguments, or one per run through xargs (mean of 2 runs). (d):
\`QDMSearch\` of a cached name in a region built from these trees, real
time per request.
EOF
if [ -n "$kept" ]; then printf '\n%s\n' "$kept" >> "$output"; fi
echo "Wrote $output"
cat "$output"
