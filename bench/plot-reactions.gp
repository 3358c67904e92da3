# Draws how long reactions take; performance.py gives samples and picture.
set terminal svg size 900,600 font "sans,13" background "white"
set output picture
set datafile separator "\t"
# Before there are ranges, which rows could be out of.
array rows[2]
do for [panel = 0:1] {
  stats samples index panel using 3 nooutput
  rows[panel + 1] = STATS_records
}
set multiplot layout 2,1 title "From a change to the reaction: median, and nine tenths of them" \
  font ",16"
set logscale x
set grid x
set lmargin 46
set rmargin 6
set format x "%g"
set xrange [0.02:2000]
unset key
do for [panel = 0:1] {
  set yrange [rows[panel + 1] - 0.4:-0.6]
  set title (panel == 0 ? "a link changes" : "a uevent of the LAN switch") font ",13"
  set xlabel (panel == 0 ? "" : "milliseconds (each line is ten times the one before)")
  plot samples index panel using 3:0:2:4:yticlabels(1) \
      with xerrorbars linewidth 2 pointtype 7 linecolor "#909090", \
    '' index panel using ($5 == 1 ? $3 : NaN):0:2:4 \
      with xerrorbars linewidth 3 pointtype 7 linecolor "#2060a0"
}
unset multiplot
