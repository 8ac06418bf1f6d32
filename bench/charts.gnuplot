# SPDX-License-Identifier: Apache-2.0
# Draws the two charts from the tables; `parts` is the tables' folder, `docs` the charts'.
set datafile separator "|"
set style fill solid 0.9 noborder
set arrow 1 from 1, graph 0 to 1, graph 1 nohead lc rgb "#444444" dt 2 front
unset key

# ---- Each operation: this library on a linear scale, the JDK's wrapper on one of powers ----

strip(s) = s[strlen(s):*] eq " " ? strip(s[1:strlen(s) - 1]) : s
set terminal svg size 1000,760 font "sans,13" background rgb "white"
set output docs."performance-ratios.svg"
set multiplot
set grid xtics
set yrange [29.6:-0.6] # as many rows as Operation.instant() has
set ytics scale 0
set margins screen 0.32, screen 0.64, screen 0.06, screen 0.93
set title "This library, times the floor"
set xrange [*<0.9:1.2<*]
plot parts."instant.md" skip 2 using 4:0:5:ytic(strip(stringcolumn(2))) \
  with xerrorbars pt 7 ps 0.7 lw 1.5 lc rgb "#1b6ca8"
set margins screen 0.68, screen 0.97, screen 0.06, screen 0.93
set title "The JDK's wrapper, times the floor"
set xrange [0.0005:8]
set logscale x
set format x "%g"
set format y ""
plot parts."instant.md" skip 2 using (1):0:(1):7:($0 - 0.3):($0 + 0.3) \
  with boxxyerror lc rgb "#e0a030"
unset multiplot

# ---- How the ratio to the floor changes with size ----

set terminal svg size 900,420 font "sans,13" background rgb "white"
set output docs."performance-growth.svg"
set margins -1, -1, -1, -1
set title "This library, times the floor, as the work grows"
set xlabel "objects found, or attributes in the template"
set xrange [0.7:1.4e6]
set format x "10^{%L}"
set format y "%g"
set yrange [*<0.9:1.2<*]
set ytics 0.05
set grid xtics ytics
set key top right
unset arrow 1
plot 1 with lines lc rgb "#444444" dt 2 title "the floor", \
  parts."growth.md" skip 2 every ::0::4 using (100 * 10**$0):4:5 \
    with yerrorlines lw 2 pt 7 lc rgb "#1b6ca8" title "search", \
  parts."growth.md" skip 2 every ::5::10 using (10**$0):4:5 \
    with yerrorlines lw 2 pt 5 lc rgb "#e0a030" title "createObject"
