# From callgrind's profiles of the threads of one run: a line for each kind of thread and each
# function that allocates there, with the number of its allocations.

FNR == 1 {
    thread = FILENAME
    sub(/.*-/, "", thread)
    # The first is main(), the second receives.
    kind = thread + 0 == 1 ? "" : thread + 0 == 2 ? "receive" : "worker"
    split("", names)
}

# Names are given once in each file and stand for a number from then on.
/^c?fn=/ {
    id = $0
    sub(/^c?fn=/, "", id)
    name = id
    sub(/\).*/, ")", id)
    if (sub(/^\([0-9]+\) /, "", name)) names[id] = name
    if ($0 ~ /^c/) callee = names[id]; else caller = names[id]
    next
}

/^calls=/ && kind && is_allocation(callee) && caller !~ /^operator new/ {
    sub(/^calls=/, "", $1)
    allocations[kind "\t" caller] += $1
}

END {
    for (site in allocations)
        printf "%s\t%s\t%s\t%d\t%.0f\n", message, contender, site, tasks, allocations[site]
}

function is_allocation(name) {
    return name ~ /^(malloc|calloc|realloc|memalign|aligned_alloc|posix_memalign|operator new.*)$/
}
