# SPDX-License-Identifier: Apache-2.0
# From callgrind's profiles of the threads of one run: how often the threads of each kind did what
# `what` says, and where the profile tells it, by function. Fields as per_task.awk takes them.

FNR == 1 {
    thread = FILENAME
    sub(/.*-/, "", thread)
    # The first is main(), the second receives.
    kind = thread + 0 == 1 ? "" : thread + 0 == 2 ? "receive" : "worker"
    split("", names)
}

what == "instructions" && /^totals:/ && kind { count[kind "\t"] += $2 }

# Names are given once in each file and stand for a number from then on.
/^c?fn=/ {
    id = name = substr($0, index($0, "=") + 1)
    sub(/\).*/, ")", id)
    if (sub(/^\([0-9]+\) /, "", name)) names[id] = name
    if ($0 ~ /^c/) callee = names[id]; else caller = names[id]
    next
}

what == "allocations" && /^calls=/ && kind && caller !~ /^operator new/ &&
callee ~ /^(malloc|calloc|realloc|memalign|aligned_alloc|posix_memalign|operator new.*)$/ {
    sub(/^calls=/, "", $1)
    count[kind "\t" caller] += $1
}

END { for (c in count) printf "%s\t%s\t%s\t%d\t%.0f\n", message, contender, c, tasks, count[c] }
