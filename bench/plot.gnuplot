# SPDX-License-Identifier: Apache-2.0
# From the driver's CSV in `csv`: the median latency by message, and the rate by calls in flight, of
# the rivals where both ends run on one core.
set terminal svg size 900,840 background "white"
set output svg
set datafile separator comma
set multiplot layout 2,1
set logscale y
set grid ytics
set key outside
set xtics rotate by -30
rivals = "library 'library, workers stay' floor 'floor, workers stay' sd-bus gRPC"
rows(in_flight, message, name) = \
    sprintf("<grep -h '^one core,\"%s\",%s,\"%s\"' %s", message, in_flight, name, csv)
set title "Median latency in microseconds, both ends on one core"
plot for [name in rivals] rows("1", ".*", name) using 0:6:xtic(2) pointtype 7 title name
set title "Calls per second, both ends on one core, 3 arguments, 273 bytes"
plot for [name in rivals] rows("[0-9]*", "3 arguments, 273 bytes", name) \
    using 3:8 with linespoints title name
