#!/usr/bin/env bash
# Measures trovalis on full-size trees with default settings and writes the
# figures to the "Full-size trees" section of BENCHMARKS.md:
#
#   (a) a tree of 400,000 empty files and its ls-R (made once, under /tmp,
#       and reused): the first process's start (it makes the region, outgrows
#       it and replaces it), a reset, the region's bytes and the bytes per
#       database entry;
#   (b) one request in a fresh process on that region, against an empty
#       process (/bin/true): a C program that links the library, medians;
#   (c) a cached look-up at the cold end of answer caches of 20, 1,000,
#       20,000 and 100,000 names (Google Benchmark, in process);
#   (d) 20,000 distinct names in one `trovalis request -` process against
#       kpsewhich given the same names, on Debian's TeX Live trees (font
#       names, and a set with LaTeX packages as well); and the same process
#       once the names are cached, with 1,000 of them for scale.
#
# Usage: bench/scale.sh [--runs N] [--output FILE] [--tree DIR]
# Needs hyperfine, kpsewhich (TeX Live), cmake, a C compiler and python3.
# Run it on a quiet machine: every figure is a wall-clock time.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
. bench/common.sh

runs=20
output=$root/BENCHMARKS.md
tree=/tmp/trovalis-scale-tree
while [ $# -gt 0 ]; do
  case $1 in
    --runs) runs=$2; shift 2 ;;
    --output) output=$2; shift 2 ;;
    --tree) tree=$2; shift 2 ;;
    -h|--help) sed -n '2,19p' "$0"; exit 0 ;;
    *) echo "bench/scale.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done

missing=""
for tool in hyperfine kpsewhich cmake cc python3; do
  command -v "$tool" >/dev/null || missing="$missing $tool"
done
if [ -n "$missing" ]; then
  echo "bench/scale.sh: missing:$missing" >&2
  echo "  hyperfine times every whole-process figure and has no stand-in here; install it" >&2
  echo "  (Debian: apt-get install hyperfine), and TeX Live for kpsewhich, then run this again." >&2
  exit 1
fi


files=400000
if [ ! -f "$tree/.complete" ]; then
  echo "Making $files empty files and their ls-R under $tree (once) ..."
  rm -rf "$tree"
  python3 - "$tree" "$files" <<'PY'
import os, sys
tree, total = sys.argv[1], int(sys.argv[2])
# 400 directories of 1,000 files: font metrics by foundry and family, and
# LaTeX packages; names of 9 to 14 characters, as in TeX Live.
dirs = [f"fonts/tfm/foundry{f:02d}/family{m:02d}" for f in range(40) for m in range(8)]
dirs += [f"tex/latex/bundle{b:02d}" for b in range(80)]
per = total // len(dirs)
lines = ["% ls-R -- filename database.", ""]
for i, d in enumerate(dirs):
    os.makedirs(os.path.join(tree, d))
    ext = ".tfm" if d.startswith("fonts") else ".sty"
    names = [f"x{i:03d}n{k:04d}{ext}" for k in range(per)]
    for n in names:
        open(os.path.join(tree, d, n), "w").close()
    lines += [f"./{d}:"] + names + [""]
with open(os.path.join(tree, "ls-R"), "w") as f:
    f.write("\n".join(lines) + "\n")
open(os.path.join(tree, ".complete"), "w").close()
PY
fi

private_instance scale
unset TROVALIS_MAP_SIZE
build_and_install
T=$work/dist/bin/trovalis
mkdir -p "$work/cwd" "$APPDATA/Zelvan TeX"
: > "$APPDATA/Zelvan TeX/TEXMF.INI"
cd "$work/cwd"   # kpsewhich looks into the current directory first

json=$work/h.json
stat_ms() { # statistic $2 (mean, median, stddev) of command $1 (0-based) in the last run, in ms
  awk -v want="$1" -v key="\"$2\":" '$1 == key { if (i++ == want) { gsub(/[^0-9.e-]/, "", $2); printf "%.3f", $2 * 1000 } }' "$json"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
report_word() { "$T" report | sed -n "s/.*$1 \\([0-9]*\\).*/\\1/p"; }

# A C program that makes one request, as a TeX program would.
cat > "$work/lookup.c" <<'C'
#include <stdio.h>
#include "trovalis.h"
int main(int argc, char **argv) {
  const char *r = QDMSearch(argv[1], argv[2]);
  return argc == 3 && r != NULL && puts(r) >= 0 ? 0 : 1;
}
C
cc -O2 -o "$work/dist/bin/lookup" "$work/lookup.c" -I"$work/dist/include" \
  "$work/dist/lib/trovalis.so" -Wl,-rpath,"$work/dist/lib"

# ---- (a), (b): the 400,000-file tree ----
ini=$work/dist/TEXMF.INI
cat > "$ini" <<EOF
[common]
TEXMF={$tree}
[QDM]
ls-R=\$TEXMF
tfm=\$TEXMF/fonts/tfm//+.tfm
tex=\$TEXMF/tex//+.tex
EOF
lsr_bytes=$(wc -c < "$tree/ls-R")
probe="x123n0456"   # in fonts/tfm/foundry15/family03

echo "(a) the 400,000-file tree: first process, reset, region ..."
hyperfine -N --warmup 1 --runs 5 --prepare "rm -f $region $lock $holder" --export-json "$json" \
  "$T find tfm $probe" >/dev/null
a_first=$(stat_ms 0 mean)
hyperfine -N --warmup 1 --runs 5 --export-json "$json" "$T reset" >/dev/null
a_reset=$(stat_ms 0 mean)
"$T" find tfm "$probe" >/dev/null
region_object=$(stat -c %s "$region")
region_max=$(report_word "maximum virtual memory")
region_used=$(report_word "it uses only")
# What the reset laid out above the mark, per file of the tree.
mark=$(python3 -c "import struct,sys; print(struct.unpack('<i', open(sys.argv[1],'rb').read(12)[8:12])[0])" "$region")
per_entry=$(awk -v u="$region_used" -v m="$mark" -v n="$files" 'BEGIN { printf "%.1f", (u - m) / n }')

echo "(b) one request in a fresh process ..."
hyperfine -N --warmup 20 --runs $((runs * 25)) --export-json "$json" \
  "$work/dist/bin/lookup tfm $probe" "/bin/true" >/dev/null
b_host=$(stat_ms 0 median); b_empty=$(stat_ms 1 median)

# ---- (c): cached look-ups in process ----
echo "(c) cached look-ups at 20 to 100,000 names ..."
c_out=$("$root/build-bench/bench/trovalis_bench" --benchmark_filter='BM_DeepLookup' \
  --benchmark_repetitions=5 --benchmark_report_aggregates_only=true 2>/dev/null)
c_row() { # "median ± stddev" for cache size $1
  echo "$c_out" | awk -v m="BM_DeepLookup/$1_median" -v s="BM_DeepLookup/$1_stddev" \
    '$1 == m { med = $2 " " $3 } $1 == s { sd = $2 " " $3 } END { print med " ± " sd }'
}

# ---- (d): batches on Debian's trees ----
echo "(d) batches on Debian's trees ..."
rm -f "$region" "$lock" "$holder"
"$T" init --force -o "$ini" >/dev/null
debian=/usr/share/texlive/texmf-dist/ls-R
# 20,000 distinct names that both find, in an order of their own (a fixed
# shuffle): font metrics and encodings, whose search paths Debian's ls-R
# files cover; and, for comparison, a set with LaTeX packages and classes
# as well, whose search path begins with /etc/texmf/tex//, a tree without an
# ls-R, searched on disk.
pick() { # $1: names file, $2: 1 to take .sty and .cls as well
  awk -v tex="$2" '
    /:$/ { dir = $0; next }
    /^%/ || $0 == "" { next }
    { n = split($0, p, "."); ext = p[n] }
    (tex && dir ~ /^\.\/tex\// && (ext == "sty" || ext == "cls")) ||
    (dir ~ /^\.\/fonts\/tfm\// && ext == "tfm") ||
    (dir ~ /^\.\/fonts\/enc\// && ext == "enc") { if (!($0 in seen)) { seen[$0] = 1; print } }' "$debian" |
    python3 -c "import random, sys; n = sys.stdin.read().split(); random.Random(17).shuffle(n); print('\n'.join(n[:20000]))" \
    > "$work/$1"
  awk '{ n = split($0, p, "."); t = (p[n] == "tfm" || p[n] == "enc") ? p[n] : "tex";
         print "<" t ">" $0 }' "$work/$1" > "$work/$1.requests"
  # The names are too many for one argument of hyperfine's: each side runs
  # from a script, which costs both the same shell start.
  { echo '#!/bin/sh'; printf 'exec kpsewhich '; tr '\n' ' ' < "$work/$1"; echo; } > "$work/$1.kpse"
  printf '#!/bin/sh\nexec %s request - < %s\n' "$T" "$work/$1.requests" > "$work/$1.ours"
  chmod +x "$work/$1.kpse" "$work/$1.ours"
}
pick fonts 0
pick mixed 1
n_names=$(wc -l < "$work/fonts")
n_tex=$(grep -c '^<tex>' "$work/mixed.requests" || true)
head -1000 "$work/fonts.requests" > "$work/fonts1000.requests"
printf '#!/bin/sh\nexec %s request - < %s\n' "$T" "$work/fonts1000.requests" > "$work/fonts1000.ours"
chmod +x "$work/fonts1000.ours"
"$T" find tex article.cls >/dev/null
hyperfine -N --warmup 2 --runs "$runs" --prepare "$T reset" --output null --export-json "$json" \
  "$work/fonts.ours" "$work/mixed.ours" >/dev/null
d_ours=$(stat_ms 0 median); d_mixed=$(stat_ms 1 median)
hyperfine -N --warmup 1 --runs "$runs" --output null --export-json "$json" \
  "$work/fonts.kpse" "$work/mixed.kpse" >/dev/null
d_kpse=$(stat_ms 0 median); d_kpse_mixed=$(stat_ms 1 median)
"$T" reset >/dev/null
"$T" request - < "$work/fonts.requests" >/dev/null   # every name cached from here
hyperfine -N --warmup 2 --runs "$runs" --output null --export-json "$json" \
  "$work/fonts1000.ours" "$work/fonts.ours" >/dev/null
d_cached1000=$(stat_ms 0 median); d_cached=$(stat_ms 1 median)
debian_files=$(grep -v -e ':$' -e '^%' -e '^$' "$debian" | wc -l)

section=$(cat <<EOF
<!-- bench/scale.sh writes this section; bench/texlive.sh keeps it -->
## Full-size trees

Made by \`bench/scale.sh\` on $(date -u +%Y-%m-%d), $(nproc) cores, $(uname -sr), with
\`TROVALIS_MAP_SIZE\` unset throughout.

**(a) A tree of $files files** (empty files in 400 directories; an ls-R of
$lsr_bytes bytes, as \`$tree\`):

| measurement | figure |
|---|---|
| first process: makes an 8,000,000-byte region, outgrows it in its first reset, replaces it and loads the tree (mean of 5) | $a_first ms |
| a configuration reset of that region (\`trovalis reset\`, mean of 5) | $a_reset ms |
| the region object | $region_object bytes (\`Mem_Max\` $region_max) |
| in use after the reset | $region_used bytes, of which $mark laid out at creation |
| bytes per database entry (in use above the mark, per file) | $per_entry |

**(b) One request in a fresh process** on that region (a C program that
links the library and asks for \`$probe\`, medians of $((runs * 25))):
$b_host ms against $b_empty ms for \`/bin/true\`: $(ratio "$b_host" "$b_empty")× an empty process
(the bound is 1.6×).

**(c) A cached look-up** (\`QDMSearch\` in process, each name asked in turn so
that the move-to-front list holds the next one at its far end; median ± standard
deviation of 5 repetitions):

| names cached | time per look-up |
|---|---|
| 20 | $(c_row 20) |
| 1,000 | $(c_row 1000) |
| 20,000 | $(c_row 20000) |
| 100,000 | $(c_row 100000) |

**(d) Batches** on Debian's trees ($debian_files files in their ls-R files):
$n_names distinct names in shuffled order, asked by one \`trovalis request -\`
process (the cache reset before each run) and by one kpsewhich run given all
of them (medians of $runs: the machine is shared, and a median keeps
another program's burst out of the figure). The fonts set holds .tfm and .enc names, whose
search paths the ls-R files cover; the mixed set has $n_tex .sty and .cls
names among them, whose search path begins with \`/etc/texmf/tex//\`, a tree
without an ls-R, which trovalis walks on disk for each such name.

| measurement | trovalis | kpsewhich | ratio |
|---|---|---|---|
| $n_names distinct font names, none cached | $d_ours ms | $d_kpse ms | $(ratio "$d_kpse" "$d_ours")× faster |
| $n_names distinct names of the mixed set, none cached | $d_mixed ms | $d_kpse_mixed ms | $(ratio "$d_kpse_mixed" "$d_mixed")× faster |
| the $n_names font names, all cached | $d_cached ms | — | — |
| 1,000 of them, cached | $d_cached1000 ms | — | $(ratio "$d_cached" "$d_cached1000")× the time for 20× the names |
EOF
)

# The section replaces its earlier version, or is added at the end.
marker='<!-- bench/scale.sh writes this section; bench/texlive.sh keeps it -->'
touch "$output"
python3 - "$output" "$marker" "$section" <<'PY'
import sys
path, marker, section = sys.argv[1:4]
text = open(path).read()
head = text.split(marker)[0].rstrip("\n")
open(path, "w").write((head + "\n\n" if head else "") + section + "\n")
PY
echo "Wrote the full-size section of $output"
echo "$section"
