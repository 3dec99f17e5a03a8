# From Google Benchmark's CSV: its fit of each family, and the times of what has none.

BEGIN { FS = "," }

{ gsub(/"/, "") }

$1 == "name" { in_table = 1; next }
!in_table { next }

$1 ~ /_BigO$/ {
    fit[name_of($1)] = $5
    coefficient[name_of($1)] = $4
    order[++families] = name_of($1)
    next
}

$1 ~ /_RMS$/ { rms[name_of($1)] = $4; next }

$1 ~ /^(type lookup|dispatch)/ { single[++singles] = sprintf("%-34s %10.0f ns", $1, $4) }

END {
    print "CPU time as a function of the number N of what the name says (with parse and release\n" \
          "where it is about arguments, elements and nesting), and the error of the fit\n"
    for (i = 1; i <= families; ++i) {
        name = order[i]
        printf "%-34s %10.2f ns * %-5s %5.0f %%\n", name, coefficient[name], shown(fit[name]),
               rms[name] * 100
    }
    print ""
    for (i = 1; i <= singles; ++i) print single[i]
}

function name_of(text) {
    sub(/_(BigO|RMS)$/, "", text)
    sub(/\/(manual_time|real_time)/, "", text)
    return text
}

function shown(text) { return text == "(1)" ? "1" : text }
