#!/usr/bin/env bash
# The figures of docs/PERFORMANCE.md, drawn with gnuplot from the benchmarks' output kept in
# docs/figures/ beside them:
#   callgrind_reads.txt  -> reads_vs_cache.png   instructions per 128-byte read against cache size
#   write_latency.txt    -> write_latency.png    histogram of the time from intf_setData to the reply
#   endurance.txt        -> endurance_memory.png resident memory and open descriptors of host and
#                                                plcsim over an endurance run
#
# Usage: bash scripts/make-figures.sh [--measure BUILD_DIR] [--endurance SAMPLES_FILE]
#   --measure BUILD_DIR   first run the benchmarks again into the data files:
#                         scripts/bench-callgrind.sh (READ_UNITS 100 to 30000, no merges) and
#                         bench/write_latency (1,000 writes of each kind) of that build
#   --endurance FILE      copy an endurance run's samples (scripts/run-endurance.sh writes
#                         OUT/samples.txt) to docs/figures/endurance.txt first
# Needs gnuplot (Debian gnuplot-nox).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
fig=$here/docs/figures
measure=
endurance=
while (($#)); do
  case $1 in
    --measure) measure=${2:?--measure needs a build folder}; shift 2 ;;
    --endurance) endurance=${2:?--endurance needs a samples file}; shift 2 ;;
    *) echo "make-figures: unknown option $1" >&2; exit 2 ;;
  esac
done
command -v gnuplot >/dev/null || { echo "make-figures: gnuplot is not installed (apt-get install gnuplot-nox)" >&2; exit 1; }
mkdir -p "$fig"

if [[ -n $measure ]]; then
  READ_UNITS="100 300 1000 3000 10000 30000" MERGE_KEYS= bash "$here/scripts/bench-callgrind.sh" "$measure" \
    >"$fig/callgrind_reads.txt"
  cmake --build "$measure" --target write_latency -j"$(nproc)" >/dev/null
  "$measure/bench/write_latency" --samples "$fig/write_latency.txt"
fi
[[ -n $endurance ]] && cp "$endurance" "$fig/endurance.txt"

style='set terminal pngcairo size 900,540 font "DejaVu Sans,11" noenhanced; set grid; set key top left'

# 1. Instructions per read against the cache size: "read_units<N>_<changing|unchanged>  <I> instructions ..."
reads=$(mktemp)
trap 'rm -f "$reads"' EXIT  # (and the histogram's file, below)
awk '/^read_units[0-9]+_changing/ { n = $1; sub(/^read_units/, "", n); sub(/_.*/, "", n); c[n] = $2 }
     /^read_units[0-9]+_unchanged/ { n = $1; sub(/^read_units/, "", n); sub(/_.*/, "", n); u[n] = $2 }
     END { for (n in c) print n, c[n], u[n] }' "$fig/callgrind_reads.txt" | sort -n >"$reads"
[[ -s $reads ]] || { echo "make-figures: no read runs in $fig/callgrind_reads.txt" >&2; exit 1; }
gnuplot <<EOF
$style
set output "$fig/reads_vs_cache.png"
set title "Instructions per 128-byte cyclic read (callgrind, Release build)"
set xlabel "cached units"
set ylabel "instructions per read"
set logscale x
set xrange [50:60000]
set yrange [0:52000]
set key top left horizontal
plot "$reads" using 1:2 with linespoints lw 2 pt 7 title "every byte changes (128 reports)", \
     "$reads" using 1:3 with linespoints lw 2 pt 5 title "no byte changes"
EOF

# 2. Write latency: histogram of the time from Session::write (intf_setData) to the end of the
#    step that handed the write's reply to the driver, 10-microsecond bins up to 1 ms.
hist=$(mktemp)
trap 'rm -f "$reads" "$hist"' EXIT
awk '!/^#/ { b = int($2 / 10); if (b > 100) next; if ($1 == "word") w[b]++; else if ($1 == "bit") t[b]++ }
     END { for (b = 0; b <= 100; ++b) print b * 10 + 5, w[b] + 0, t[b] + 0 }' "$fig/write_latency.txt" >"$hist"
read -r words bits late < <(awk '!/^#/ { n[$1]++; if ($2 >= 1010) l++ } END { print n["word"] + 0, n["bit"] + 0, l + 0 }' \
  "$fig/write_latency.txt")
gnuplot <<EOF
$style
set output "$fig/write_latency.png"
set title "Write latency, 500-address screen polled against plcsim (bench/write_latency)"
set xlabel "microseconds from intf_setData to the PLC's reply to the write (10 us bins; $late of $((words + bits)) writes took longer)"
set ylabel "writes per bin"
set key top right
set xrange [0:1010]
set yrange [0:*]
set style fill transparent solid 0.55 noborder
set boxwidth 10 absolute
plot "$hist" using 1:2 with boxes title "word (M_W), $words writes: the next request", \
     "$hist" using 1:3 with boxes title "bit (M_bit), $bits writes: a read of its byte, then the write"
EOF

# 3. Resident memory and open descriptors over an endurance run: "seconds requests round
#    round_end host_rss_kib host_fds plcsim_rss_kib plcsim_fds", two panels in one picture.
if [[ -s $fig/endurance.txt ]]; then
  gnuplot <<EOF
$style
set terminal pngcairo size 900,760 font "DejaVu Sans,11" noenhanced
set output "$fig/endurance_memory.png"
set multiplot layout 2,1 title "Endurance run (5 % of every fault kind, a writing thread)"
set autoscale xfix
set format x "%.1f"
set xlabel "requests (millions)"
set ylabel "resident memory (MiB)"
set yrange [0:*]
set key center right
plot "$fig/endurance.txt" using (\$2/1e6):(\$5/1024) with lines lw 2 title "host (soak: session, driver, wire tap)", \
     "$fig/endurance.txt" using (\$4 == 1 ? \$2/1e6 : 1/0):(\$5/1024) with points pt 7 ps 0.8 title "host at the end of a round", \
     "$fig/endurance.txt" using (\$2/1e6):(\$7/1024) with lines lw 2 title "plcsim"
set ylabel "open descriptors"
set yrange [0:20]
set key top right
plot "$fig/endurance.txt" using (\$2/1e6):6 with steps lw 1 title "host, every sample (a reconnection may be under way)", \
     "$fig/endurance.txt" using (\$4 == 1 ? \$2/1e6 : 1/0):6 with points pt 7 ps 0.8 title "host at the end of a round", \
     "$fig/endurance.txt" using (\$2/1e6):8 with steps lw 1 title "plcsim, every sample", \
     "$fig/endurance.txt" using (\$4 == 1 ? \$2/1e6 : 1/0):8 with points pt 5 ps 0.8 title "plcsim at the end of a round"
unset multiplot
EOF
fi
ls -l "$fig"/*.png
