load 'common.gp'
set title 'Sender CPU for each receiver, 1,920 bytes at 100 frames a second'
set xlabel 'receivers'
set ylabel 'us per frame and receiver'
set logscale x 2
set yrange [0:*]
columns = int(system("awk -F'\" \"' 'NR==1 { print NF }' ".data))
plot for [i=2:columns] data using (real(stringcolumn(1))):i title columnheader(i) lt i-1 lw 2
