# Draws what programs at rest have of their own; performance.py gives samples and picture.
set terminal svg size 900,380 font "sans,13" background "white"
set output picture
set datafile separator "\t"
stats samples using 2 nooutput
set title "Memory of its own (USS) at rest, KiB" font ",16"
set style fill solid
set boxwidth 0.6
set grid x
unset key
set lmargin 34
set rmargin 12
set yrange [STATS_records - 0.4:-0.6]
set xrange [0:1.15 * STATS_max]
bar = 0.3
plot samples using (0):0:(0):2:($0 - bar):($0 + bar):yticlabels(1) \
    with boxxyerror linecolor "#a0a0a0", \
  '' using ($0 == 0 ? 0 : NaN):0:(0):2:($0 - bar):($0 + bar) \
    with boxxyerror linecolor "#2060a0", \
  '' using 2:0:(sprintf("  %d", column(2))) with labels left
