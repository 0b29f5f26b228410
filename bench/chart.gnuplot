# Draws docs/performance.svg from what ./dev bench has printed:
#   ./dev bench 120 >build/bench.md
#   gnuplot bench/chart.gnuplot
set terminal svg size 640,280 font "sans-serif,13"
set output "docs/performance.svg"
set title "One application that prints a line: milliseconds from launch to exit, median"
set style fill solid
set boxwidth 0.6
unset key
set yrange [0:]
set xrange [-0.5:3.5]
rows = "< awk -F' *[|] *' '/^## One application/ { is_table = 1 } is_table && $4 ~ /^[0-9]/ { print \"\\\"\" $2 \"\\\"\", $4 }' build/bench.md"
plot rows using 0:2:xtic(1) with boxes lc rgb "#4477aa", \
     rows using 0:2:(sprintf("%.0f", $2)) with labels offset 0,0.7
