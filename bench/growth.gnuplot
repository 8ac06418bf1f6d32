# Cost against size on logarithmic axes; `data` and `output` are given.
set terminal svg size 900,560 font "sans,13" background rgb "white"
set output output
set datafile separator "\t"
set title "Cost against size, on a module that answers at once"
set logscale xy
set format x "10^{%L}"
set format y "10^{%L}"
set xlabel "objects found, or attributes in the template"
set ylabel "microseconds"
set grid
set key top left
plot for [i=0:3] data index i using 1:2 with linespoints lw 2 pt 7 title columnheader(1)
