load 'common.gp'
set title 'First frame of a waiting receiver after the call that opens the stream'
set xlabel 'ms'
set ylabel '% of repetitions'
set logscale x
set yrange [0:100]
set style data steps
stats data using 2 nooutput
plot for [i=0:STATS_blocks-1] data index i using (real(stringcolumn(1))):2 \
    title columnheader(2) lt i+1 lw 2
