# SPDX-License-Identifier: Apache-2.0
# From Google Benchmark's CSV files: the tables decoding.txt, release.txt and growth.txt, which are
# put into `directory`.

BEGIN {
    FS = ","
    decoding = directory "/decoding.txt"
    release = directory "/release.txt"
    growth = directory "/growth.txt"
    print "Decoding of arguments as a share of jsoncpp's parse of the same message\n\n" \
          "By number of values; the time is that of decoding each value of the largest message\n" \
          >decoding
    print "Making and releasing of 1,000 arguments, in ns for each, by who releases them\n" >release
    printf "%-34s %8s %9s %8s\n", "", "making", "releasing", "sum" >release
    print "CPU time as a function of the number N of what the name says (with parse and release\n" \
          "where it is about arguments, elements and nesting), and the error of the fit\n" >growth
}

{ gsub(/"/, "") }

$1 == "name" {
    split("", column)
    for (i = 1; i <= NF; ++i) column[title[i] = $i] = i
    in_table = 1
}

!in_table || $1 == "name" { next }

$(column["decode/parse"]) != "" && column["decode/parse"] {
    split($1, part, "/")
    name = sprintf("%-10s %-9s", part[1], part[2])
    if (name != row_name) end_row()
    row_name = name
    header = header sprintf(" %7d", part[3])
    row = row sprintf(" %7.2f", $column["decode/parse"])
    each = $column["decode_ns"] / part[3]
}

/^release/ {
    for (i = 1; i <= NF; ++i) {
        if (!sub(/^making /, "", title[i])) continue
        releasing = $column["releasing " title[i]]
        printf "%-34s %8.0f %9.0f %8.0f\n", title[i], $i, releasing, $i + releasing >release
    }
}

# The fit of a family, of which the error follows.
sub(/(\/manual_time|\/real_time)?_BigO$/, "", $1) {
    fit = sprintf("%-34s %10.2f ns * %-5s", $1, $column["cpu_time"], $5 == "(1)" ? "1" : $5)
}

/_RMS,/ { printf "%s %5.0f %%\n", fit, $column["cpu_time"] * 100 >growth }

/^(type lookup|dispatch)/ { single = single sprintf("%-34s %10.0f ns\n", $1, $4) }

END {
    end_row()
    printf "\n%s", single >growth
}

function end_row() {
    if (row == "") return
    if (header != shown) printf "%-20s%s %8s\n", "", header, "ns each" >decoding
    shown = header
    printf "%s%s %8.0f\n", row_name, row, each >decoding
    header = row = ""
}
