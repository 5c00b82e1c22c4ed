# Every picture: gnuplot -e "data='FILE.dat'; picture='FILE.svg'" plots/NAME.gp
set terminal svg size 860,460 dynamic background rgb 'white' font 'sans,13'
set output picture
set key outside right top
set grid lc rgb '#dddddd'
set border 3
set tics nomirror
set style data linespoints
set pointsize 0.5
