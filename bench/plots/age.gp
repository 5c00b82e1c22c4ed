load 'common.gp'
set title 'Age of a frame, 1,920 bytes at 1,000 a second'
set xlabel 'percentile'
set ylabel 'us'
set logscale y
columns = int(system("awk -F'\" \"' 'NR==1 { print NF }' ".data))
plot for [i=2:columns] data using (column(0)):i:xtic(1) title columnheader(i) lt i-1 lw 2
