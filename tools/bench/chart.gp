# Contended throughput against threads, one line per lock: the library's locks thick and solid,
# the peers thin and dashed, std::mutex (the report's baseline) black. Data from
# tools/bench/report.py; run by scripts/bench.sh as
#   gnuplot -e "library='L.dat'; peers='P.dat'; output='chart.svg'; runs=5" tools/bench/chart.gp
# Each data file has a header row of lock names, then one row per thread count.
set terminal svg size 1150,620 dynamic noenhanced font "Helvetica,14" background "white"
set output output

set title sprintf("Contended lock throughput: median of %d process%s, higher is better", \
                  runs, runs == 1 ? "" : "es")
set xlabel "threads taking the same lock (2 vCPUs: 4 and 8 threads oversubscribe)"
set ylabel "lock/unlock pairs per second, millions"
set logscale x 2
set logscale y 10
set xrange [0.85:9.4]
set xtics ("1" 1, "2" 2, "4" 4, "8" 8)
set format y "%g"
set grid xtics ytics mytics lc rgb "#dddddd"
set key outside right center vertical Left reverse invert samplen 3 spacing 1.3
set datafile missing "NaN"
set datafile columnheaders

# The first peer column is std::mutex.
library_colors = "#d62728 #1f77b4 #2ca02c #9467bd"
peer_colors = "#000000 #8c564b #e377c2 #bcbd22 #17becf #ff7f0e #7f7f7f #6baed6"

stats library nooutput
library_columns = STATS_columns
stats peers nooutput
peer_columns = STATS_columns

plot peers using 1:2 with linespoints lw 2.5 dt 1 pt 6 ps 0.8 lc rgb word(peer_colors, 1) \
         title columnheader(2), \
     for [c=3:peer_columns] peers using 1:c with linespoints lw 1.5 dt 2 pt 6 ps 0.8 \
         lc rgb word(peer_colors, c - 1) title columnheader(c), \
     for [c=2:library_columns] library using 1:c with linespoints lw 3.5 dt 1 pt 7 ps 1.0 \
         lc rgb word(library_colors, c - 1) title columnheader(c)
