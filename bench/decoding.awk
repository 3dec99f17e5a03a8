# From Google Benchmark's CSV: the time of decoding as a share of jsoncpp's parse of the same
# message, by type and count.

BEGIN {
    FS = ","
    print "Decoding of arguments as a share of jsoncpp's parse of the same message\n"
    print "By number of values; the time is that of decoding each value of the largest message\n"
}

{ gsub(/"/, "") }

$1 == "name" {
    for (i = 1; i <= NF; ++i) column[$i] = i
    next
}

column["decode/parse"] && $column["decode/parse"] != "" {
    split($1, part, "/")
    name = sprintf("%-10s %-9s", part[1], part[2])
    if (name != row_name) flush_row()
    row_name = name
    header = header sprintf(" %7d", part[3])
    row = row sprintf(" %7.2f", $column["decode/parse"])
    each = $column["decode_ns"] / part[3]
}

END { flush_row() }

function flush_row() {
    if (!row) return
    if (header != shown) printf "%-20s%s %8s\n", "", header, "ns each"
    shown = header
    printf "%s%s %8.0f\n", row_name, row, each
    header = row = ""
}
