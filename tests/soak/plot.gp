# Draws what soak.py saw; script/soak gives samples, picture and heading.
set terminal svg size 900,900 font "sans,13" background "white"
set output picture
set datafile separator "\t"
minutes = "(column(1)/60.0)"
stats samples using 4 every ::1 nooutput
set multiplot layout 4,1 title heading font ",16"
set grid
set key outside right top width -2
set lmargin 10
set rmargin 26
set xrange [0:*]
set offsets 0, 0, graph 0.1, 0

set ylabel "KiB"
set yrange [0:*]
plot samples using @minutes:4 every ::1 with lines linecolor "#2060a0" title "resident memory"

set ylabel "KiB"
plot samples using @minutes:($4 - STATS_min) every ::1 with lines linecolor "#2060a0" \
  title "above its lowest"

set ylabel "count"
set yrange [-1:*]
plot samples using @minutes:5 every ::1 with lines linecolor "#2060a0" title "descriptors", \
  '' using @minutes:6 every ::1 with lines linecolor "#c06020" title "threads", \
  '' using @minutes:7 every ::1 with lines linewidth 3 linecolor "#208040" title "children", \
  '' using @minutes:8 every ::1 with lines linecolor "#a02060" title "zombies"

set ylabel "seconds"
set yrange [0:*]
set xlabel "minutes"
took(what) = strcol(2) eq what ? column(3) : NaN
plot samples using @minutes:(took("second")) every ::1 \
    with points pointtype 7 pointsize 0.3 linecolor "#2060a0" title "search, dead first", \
  '' using @minutes:(took("cable")) every ::1 \
    with points pointtype 6 pointsize 0.5 linecolor "#c06020" title "cable plugged", \
  '' using @minutes:(took("first")) every ::1 \
    with points pointtype 7 pointsize 0.2 linecolor "#208040" title "search, first answers"
unset multiplot
