#!/usr/bin/env bash
# Times qlx-manifest create beside rhash, find|xargs sha1sum and mtree on
# the same trees in the same run, warm cache, and prints MB/s, files/s,
# peak RSS and each tool's time as a ratio of rhash's and of mtree's.
#
#   bench/manifest_bench.sh [DATA_DIR] [RUNS] [TREES]
#
# DATA_DIR (default /tmp/vexd-bench) gets trees A and B from
# make_manifest_trees.py when they are missing; tree C (C_FILES files of
# 512 bytes, default 200,000) is made in a folder of its own under /tmp and
# deleted when the script ends. TREES (default "A B C") picks the trees;
# RUNS (default 3) runs of each tool are made in turn and the median counts.
# Needs rhash, mtree-netbsd, GNU time and a built build/bin/qlx-manifest.
# Delete DATA_DIR afterwards.
set -euo pipefail
cd "$(dirname "$0")/.."
data=${1:-/tmp/vexd-bench}
runs=${2:-3}
trees=${3:-A B C}
cfiles=${C_FILES:-200000}
qlx=$PWD/build/bin/qlx-manifest
memory=$PWD/build/bin/manifest_memory
[ -x "$qlx" ] || { echo "build first: scripts/build build" >&2; exit 1; }
case " $trees " in *" A "* | *" B "*) python3 bench/make_manifest_trees.py "$data" >/dev/null ;; esac
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
declare -A roots
roots[A]=$data/A
roots[B]=$data/B
roots[C]=$out/trees/C
case " $trees " in *" C "*) python3 bench/make_manifest_trees.py "$out/trees" C "$cfiles" >/dev/null ;; esac

declare -A commands=(
  [qlx-manifest]="$qlx create TREE -o $out/manifest.plist"
  [rhash]="rhash --sha1 -r TREE"
  [sha1sum]="find TREE -type f -print0 | xargs -0 sha1sum"
  [mtree]="mtree -c -K sha1digest,uname,gname,mode,size,time -p TREE"
)

# Prints "seconds peak-KB" for one run of a command line.
measure() {
  /usr/bin/time -f "%e %M" -o "$out/time" bash -c "$1" >/dev/null 2>"$out/stderr" || {
    echo "failed: $1" >&2; cat "$out/stderr" >&2; exit 1; }
  cat "$out/time"
}

for tree in $trees; do
  root=${roots[$tree]}
  # Small files: find|xargs sha1sum adds nothing that rhash does not show.
  if [ "$tree" = C ]; then order=(rhash qlx-manifest mtree); else order=(rhash qlx-manifest sha1sum mtree); fi
  bytes=$(find "$root" -type f -printf '%s\n' | awk '{s += $1} END {printf "%d", s}')
  files=$(find "$root" -type f | wc -l)
  find "$root" -type f -print0 | xargs -0 cat >/dev/null  # warm the cache
  declare -A times=() peaks=()
  for ((r = 0; r < runs; r++)); do
    for tool in "${order[@]}"; do
      read -r seconds kb < <(measure "${commands[$tool]//TREE/$root}")
      times[$tool]+="$seconds "
      peaks[$tool]=$kb
    done
  done
  echo "== tree $tree: $files files, $((bytes / 1000000)) MB, load $(cut -d' ' -f1 /proc/loadavg)"
  printf '%-13s %8s %9s %10s %10s %9s %9s\n' tool seconds MB/s files/s "peak KB" "÷ rhash" "÷ mtree"
  median() { tr ' ' '\n' | grep -v '^$' | sort -g | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}'; }
  base=$(echo "${times[rhash]}" | median)
  mbase=$(echo "${times[mtree]}" | median)
  for tool in "${order[@]}"; do
    t=$(echo "${times[$tool]}" | median)
    awk -v t="$t" -v b="$bytes" -v f="$files" -v k="${peaks[$tool]}" -v base="$base" \
      -v mbase="$mbase" -v n="$tool" \
      'BEGIN {printf "%-13s %8.2f %9.0f %10.0f %10d %9.2f %9.2f\n", n, t, b / 1e6 / t, f / t, k,
              t / base, t / mbase}'
  done
  unset times peaks
done

case " $trees " in *" A "*)
  echo "== memory of qlx-manifest beyond the manifest (tree A)"
  "$memory" "$data/A" 2>/dev/null ;;
esac
case " $trees " in *" B "*)
  echo "== peak RSS flat in file size: 8 files of 256 MiB against 8 empty files"
  mkdir -p "$out/empty" && for i in 0 1 2 3 4 5 6 7; do : >"$out/empty/big$i.bin"; done
  for root in "$data/B" "$out/empty"; do
    read -r seconds kb < <(measure "$qlx create $root -o $out/m.plist")
    echo "$root: $kb KB"
  done ;;
esac
