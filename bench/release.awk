# From Google Benchmark's CSV: the time of making arguments and of releasing them, by who does that.

BEGIN {
    FS = ","
    print "Making and releasing of 1,000 arguments, in ns for each, by who releases them\n"
    printf "%-34s %8s %9s %8s\n", "", "making", "releasing", "sum"
}

{ gsub(/"/, "") }

$1 == "name" {
    for (i = 1; i <= NF; ++i) title[i] = $i
    next
}

$1 ~ /^release/ {
    for (i = 1; i <= NF; ++i) value[title[i]] = $i
    for (i = 1; i <= NF; ++i) {
        if (title[i] !~ /^making /) continue
        place = substr(title[i], length("making ") + 1)
        releasing = value["releasing " place]
        printf "%-34s %8.0f %9.0f %8.0f\n", place, $i, releasing, $i + releasing
    }
}
