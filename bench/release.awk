# From Google Benchmark's CSV: the time of making arguments and of releasing them, by who does that.

BEGIN {
    FS = ","
    print "Making and releasing of 1,000 arguments, in ns for each, by who releases them\n"
    printf "%-34s %8s %9s %8s\n", "", "making", "releasing", "sum"
}

{ gsub(/"/, "") }

$1 == "name" {
    for (i = 1; i <= NF; ++i) column[$i] = i
    next
}

$1 ~ /^release\// {
    split($1, part, "/")
    making = $column["making_ns"]
    releasing = $column["releasing_ns"]
    printf "%-34s %8.0f %9.0f %8.0f\n", part[2], making, releasing, making + releasing
}
