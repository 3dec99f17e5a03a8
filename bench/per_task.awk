# SPDX-License-Identifier: Apache-2.0
# From counts of two numbers of tasks: counts for each task, by message, contender and kind of
# thread, and for the first message by function, where the counts tell it.
# Fields: message, contender, kind of thread, function, tasks, count.

{
    if (!($1 in few)) message_name[++messages] = $1
    if (!few[$1] || $5 < few[$1]) few[$1] = $5
    if ($5 > many[$1]) many[$1] = $5
    count[$1, $2, $3, $5] += $6
    if ($4 == "" || messages > 1) next
    sites[site = $2 "\t" $3 "\t" $4] = has_sites = 1
    at_site[site, $5] += $6
}

END {
    print (has_sites ? "Allocations" : "Instructions") " for each task\n"
    printf "%-24s %32s  %32s\n", "", "library", "floor"
    heads = sprintf(" %10s %10s %10s", "receive", "worker", "sum")
    printf "%-24s%s %s %8s\n", "", heads, heads, "ratio"
    for (i = 1; i <= messages; ++i) {
        message = message_name[i]
        printf "%-24s%s %s %8.2f\n", message, cells("library"), cells("floor"),
               sum("library") / sum("floor")
    }
    if (has_sites) show_sites()
}

# What each further task adds.
function more(of_many, of_few) { return (of_many - of_few) / (many[message] - few[message]) }

function per_task(contender, kind) {
    return more(count[message, contender, kind, many[message]],
                count[message, contender, kind, few[message]])
}

function sum(contender) { return per_task(contender, "receive") + per_task(contender, "worker") }

function cells(contender) {
    return sprintf(" %10.1f %10.1f %10.1f", per_task(contender, "receive"),
                   per_task(contender, "worker"), sum(contender))
}

function show_sites(   site, part, each, sorted) {
    sorted = "sort -k1,1r -k2,2 -k3,3nr"
    message = message_name[1]
    printf "\nWhere they are made: %s\n\n", message
    for (site in sites) {
        each = more(at_site[site, many[message]], at_site[site, few[message]])
        if (each < 0.01) continue
        split(site, part, "\t")
        gsub(/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >/,
             "std::string", part[3])
        if (length(part[3]) > 110) part[3] = substr(part[3], 1, 107) "..."
        printf "%-8s %-8s %5.1f  %s\n", part[1], part[2], each, part[3] | sorted
    }
}
