# Draws what bench-report --plot gives: how our times grow, and how they compare. Wants `data` and `folder`.
set terminal svg size 960,640 dynamic background "white"
stats data using 1 nooutput
growing = STATS_blocks - 1

set output folder . "/growth.svg"
set title "Time over size"
set logscale xy
set xlabel "size"
set ylabel "ns"
set key outside right
set grid
plot for [i = 0:growing - 1] data index i using 1:2 with linespoints title columnheader(1)

set output folder . "/ratios.svg"
unset logscale
unset key
set title "Our time over the peer's, same work (below 1: faster)"
set xlabel "ratio"
unset ylabel
set xrange [0:*]
set yrange [] reverse
set offsets 0, 0, 0.5, 0.5
set arrow from 1, graph 0 to 1, graph 1 nohead dashtype 2
set terminal svg size 960,1200 dynamic background "white"
plot data index growing every ::1 using 2:0:3:4:ytic(1) with xerrorbars pointtype 7
