load 'common.gp'
set title 'Packet functions and a plain copy'
set xlabel 'bytes of media data'
set ylabel 'GB/s'
set logscale xy
columns = int(system("awk -F'\" \"' 'NR==1 { print NF }' ".data))
plot for [i=2:columns] data using (real(stringcolumn(1))):i title columnheader(i) lt i-1 lw 2
