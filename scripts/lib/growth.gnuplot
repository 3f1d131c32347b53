# SPDX-License-Identifier: LGPL-3.0-or-later
# Plots the time of a decision against the size of the map and against the width of its folders.
set terminal svg size 900,380 font "sans,12" background "white"
set output out
set multiplot layout 1,2
set logscale x
set yrange [0:*]
set ylabel "microseconds"
set grid
unset key
set title "folders of the map (16 wide)"
set xlabel "folders"
plot data.'/size.dat' with linespoints pt 7 lc rgb "#1f5fa8"
set title "children of a folder (100,000 folders)"
set xlabel "children"
plot data.'/width.dat' with linespoints pt 7 lc rgb "#a8481f"
unset multiplot
