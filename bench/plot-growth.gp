# Draws what more and more events and searches cost; performance.py gives samples and picture.
set terminal svg size 900,640 font "sans,13" background "white"
set output picture
set datafile separator "\t"
set multiplot layout 2,1 title "More and more of them" font ",16"
set logscale x
set grid
set key outside right top width -4
set lmargin 12
set rmargin 34
set xrange [0.8:200000]
set format x "%.0f"
of(what, column_) = strcol(1) eq what ? column(column_) : NaN

set ylabel "microseconds each"
set logscale y
plot samples using 2:(of("events", 3)) with points pointtype 7 linecolor "#208040" \
    title "uevent of another device", \
  '' using 2:(of("by-start", 3)) with points pointtype 7 linecolor "#2060a0" \
    title "search, asked by start()", \
  '' using 2:(of("by-link", 3)) with points pointtype 6 pointsize 1.5 linecolor "#c06020" \
    title "search, asked by a link"

unset logscale y
set ylabel "KiB kept after all"
set yrange [-5:*]
set xlabel "how many"
plot samples using 2:(of("events", 4)) with points pointtype 7 linecolor "#208040" \
    title "uevents", \
  '' using 2:(of("by-start", 4)) with points pointtype 7 linecolor "#2060a0" \
    title "searches by start()", \
  '' using 2:(of("by-link", 4)) with points pointtype 6 pointsize 1.5 linecolor "#c06020" \
    title "searches by a link"
unset multiplot
