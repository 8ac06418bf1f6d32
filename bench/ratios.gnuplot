# The cost of each operation over the floor, for each subject; `data` and `output` are given.
set terminal svg size 1000,1150 font "sans,13" background rgb "white"
set output output
set datafile separator "\t"
set title "Cost on a module that answers at once, against the least that the contract allows (= 1)"
set logscale x 10
set xrange [0.001:20]
set format x "%g"
set xlabel "times the floor, shorter is faster"
set yrange [*:*] reverse
set ytics scale 0
set grid xtics
set key outside top center horizontal
set offsets 0, 0, 0.6, 0.6
set arrow 1 from 1, graph 0 to 1, graph 1 nohead lc rgb "#444444" dt 2 front
bar = 0.26
set style fill solid 0.9 noborder
plot data using (0.001):($0 - bar):(0.001):3:($0 - 1.5 * bar):($0 - 0.5 * bar):ytic(1) \
       with boxxyerror lc rgb "#1b6ca8" title "this library", \
     "" using (0.001):0:(0.001):4:($0 - 0.5 * bar):($0 + 0.5 * bar) \
       with boxxyerror lc rgb "#e0a030" title "the JDK's wrapper", \
     "" using (0.001):($0 + bar):(0.001):5:($0 + 0.5 * bar):($0 + 1.5 * bar) \
       with boxxyerror lc rgb "#9aa5b1" title "a JNA binding"
