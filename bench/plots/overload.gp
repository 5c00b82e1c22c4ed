load 'common.gp'
set title 'Age of what arrives when the producer floods, 1,920 bytes'
set ylabel 'us'
set logscale y
set style data histograms
set style fill solid 0.8 border -1
set xtics rotate by -30
plot for [i=2:4] data using i:xtic(1) title columnheader(i)
