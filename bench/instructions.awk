# From callgrind's profiles of the threads of one run: a line for each kind of thread, with the
# number of its instructions.

FNR == 1 {
    thread = FILENAME
    sub(/.*-/, "", thread)
    # The first is main(), the second receives.
    kind = thread + 0 == 1 ? "" : thread + 0 == 2 ? "receive" : "worker"
}

/^totals:/ && kind { instructions[kind] += $2 }

END {
    for (kind in instructions)
        printf "%s\t%s\t%s\t\t%d\t%.0f\n", message, contender, kind, tasks, instructions[kind]
}
