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
# Installs TeX Live and libkpathsea's headers from Debian's packages when they
# are missing; needs hyperfine. Run it on a quiet machine: every figure is a
# wall-clock time.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
. bench/common.sh

runs=20
output=$root/BENCHMARKS.md
while [ $# -gt 0 ]; do
  case $1 in
    --runs) runs=$2; shift 2 ;;
    --output) output=$2; shift 2 ;;
    -h|--help) sed -n '2,19p' "$0"; exit 0 ;;
    *) echo "bench/texlive.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done

SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO=sudo; fi
if ! command -v kpsewhich >/dev/null || [ ! -f /usr/include/kpathsea/kpathsea.h ]; then
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends texlive-base texlive-latex-base \
    texlive-fonts-recommended texlive-latex-extra texlive-fonts-extra libkpathsea-dev pkg-config >/dev/null
fi
if ! command -v hyperfine >/dev/null; then
  echo "bench/texlive.sh: hyperfine is not installed (it is not on PATH)." >&2
  echo "  Install it (Debian: apt-get install hyperfine, or a release binary from" >&2
  echo "  the hyperfine project) and run this script again." >&2
  exit 1
fi


private_instance bench
build_and_install
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

echo "(e) TeX Live's programs with and without the bridge ..."
bridge=$work/dist/lib/trovalis-kpathsea.so
[ -f "$bridge" ] || { echo "bench/texlive.sh: the kpathsea bridge was not built" >&2; exit 1; }
export TROVALIS_INI=$work/dist/TEXMF.INI SOURCE_DATE_EPOCH=1700000000 FORCE_SOURCE_DATE=1
mkdir -p "$work/doc" && cd "$work/doc"
cat > doc.tex <<'TEX'
\documentclass{article}
\usepackage{amsmath,amssymb,graphicx,booktabs,xcolor,geometry,fancyhdr,enumitem,caption}
\usepackage{hyperref}
\begin{document}
\title{A short article}\author{T. Rovalis}\maketitle
\section{Introduction}
As Knuth shows \cite{knuth}, \(e^{i\pi}+1=0\) and
\begin{align} a &= \sum_{k=1}^n k^2 \end{align}
\begin{tabular}{ll}\toprule A & B\\ \midrule 1 & 2\\ \bottomrule\end{tabular}
\textcolor{blue}{Blue} and \url{https://example.org}.
\bibliographystyle{plain}\bibliography{refs}
\end{document}
TEX
printf '@book{knuth, author={Donald E. Knuth}, title={The {\\TeX}book},\n  publisher={Addison-Wesley}, year={1984}}\n' > refs.bib
printf '\\font\\big=cmbx12 {\\big A plain page}\\par\\input story\n$\\sum_{i=1}^n i$\\bye\n' > plain.tex
run_doc() { "$@" pdflatex -interaction=nonstopmode doc >/dev/null && "$@" bibtex doc >/dev/null &&
            "$@" pdflatex -interaction=nonstopmode doc >/dev/null && "$@" tex plain >/dev/null; }
run_doc "$T" run   # builds the region and warms both finders
programs=("kpsewhich article.cls" "bibtex doc" "dvips -q plain.dvi -o plain.ps"
          "pdftex -interaction=nonstopmode plain.tex" "pdflatex -interaction=nonstopmode doc.tex")
syscalls() { # total system calls, bytes read and ls-R files opened by command "$@"
  strace -f -qq -o "$work/st" "$@" >/dev/null 2>&1 </dev/null || true
  awk '/ = [0-9]+$/ || / = -1 / { calls++ }
       /(^|[ (])(read|pread64)\(/ && / = [0-9]+$/ { bytes += $NF }
       /open.*\/ls-R"/ && / = [0-9]+$/ { lsr++ }
       END { printf "%d %d %d", calls, bytes, lsr }' "$work/st"
}
e_rows=""
for p in "${programs[@]}"; do
  read -r -a cmd <<< "$p"
  hyperfine -N --warmup 3 --runs $((runs * 2)) --export-json "$json" \
    "env ${cmd[*]}" "env LD_PRELOAD=$bridge ${cmd[*]}" "$T run ${cmd[*]}" >/dev/null
  plain=$(median_ms 0); bridged=$(median_ms 1); via_run=$(median_ms 2)
  stats="—|—"
  if command -v strace >/dev/null; then
    read -r c0 b0 l0 <<< "$(syscalls "${cmd[@]}")"
    read -r c1 b1 l1 <<< "$(syscalls env LD_PRELOAD="$bridge" "${cmd[@]}")"
    stats="$c0 → $c1|$((b0 / 1024)) → $((b1 / 1024)) KiB; ls-R opened $l0 → $l1"
  fi
  e_rows+="| \`${cmd[0]}\` | $plain ms | $bridged ms ($via_run ms) | $(ratio2 "$plain" "$bridged")× |$stats|"$'\n'
done
# What a bridged kpsewhich cannot save: starting a program with kpathsea,
# and kpathsea's own start (reading texmf.cnf, building the format's path)
# without a search.
hyperfine -N --warmup 5 --runs $((runs * 5)) --export-json "$json" \
  "env kpsewhich --version" "env LD_PRELOAD=$bridge kpsewhich -show-path=tex" >/dev/null
floor_exec=$(median_ms 0); floor_start=$(median_ms 1)
cmp_pdf="no"
cp doc.pdf bridged.pdf && pdflatex -interaction=nonstopmode doc >/dev/null && cmp -s doc.pdf bridged.pdf && cmp_pdf="yes"
cd "$work/cwd"

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

## TeX Live's programs through the kpathsea bridge

The same programs, warm, with kpathsea alone and with the bridge
preloaded (\`LD_PRELOAD\`, as for a whole shell; in brackets through
\`trovalis run\`, which adds the tool's own start); medians of $((runs * 2))
runs each, the three measured in one hyperfine run per program. System
calls, bytes read and ls-R files opened by one run of each, by strace,
without the bridge → with it.

| program | kpathsea | bridged (trovalis run) | ratio | system calls | bytes read |
|---|---|---|---|---|---|
$e_rows
What the bridge leaves: kpathsea still reads its texmf.cnf files and
builds each format's path, and the programs do their own work. A program
with kpathsea that does nothing (\`kpsewhich --version\`) takes
$floor_exec ms; with kpathsea's start as well (\`kpsewhich -show-path=tex\`,
bridged, which reads no ls-R) $floor_start ms, about what the bridged
\`kpsewhich\` takes in all: the ratio for one look-up is bounded by
kpathsea's own start. The engines' figures are bounded the same way by
the engines' own work (loading the format, writing the PDF).

The documents: \`doc.tex\`, a one-page article with ten common packages
and a bibliography (after \`pdflatex\`, \`bibtex\`, \`pdflatex\`), and a
plain TeX page (\`plain.tex\`, through \`tex\` for \`dvips\`), both in
bench/texlive.sh. The PDF made with the bridge is byte-identical to the
one made without it (\`SOURCE_DATE_EPOCH\` set): $cmp_pdf.
EOF
if [ -n "$kept" ]; then printf '\n%s\n' "$kept" >> "$output"; fi
echo "Wrote $output"
cat "$output"
