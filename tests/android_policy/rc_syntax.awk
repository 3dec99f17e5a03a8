# SPDX-License-Identifier: Apache-2.0
# Tells what is wrong with .rc files of init, as far as the samples use its language, and prints for
# each service "SERVICE PROGRAM USERS-AND-GROUPS DOMAIN" to standard output.

BEGIN {
    # How many words may follow.
    split("class:1-9 user:1-1 group:1-9 seclabel:1-1 restart_period:1-1 socket:3-6 rlimit:3-3 " \
          "oneshot:0-0 disabled:0-0 capabilities:1-9 ioprio:2-2 priority:1-1", options, " ")
    for (i in options) { split(options[i], part, /[:-]/); allow("service", part) }
    split("mkdir:1-4 setprop:2-2 chmod:2-2 chown:2-3", commands, " ")
    for (i in commands) { split(commands[i], part, /[:-]/); allow("on", part) }
    resources = "^(cpu|fsize|data|stack|core|rss|nproc|nofile|memlock|as|locks|sigpending)$"
}

function allow(section, part) {
    least[section, part[1]] = part[2]
    most[section, part[1]] = part[3]
}
function complain(text) {
    print FILENAME ":" FNR ": " text >"/dev/stderr"
    failed = 1
}
function finish() {
    if (section == "service") print service, program, names, domain
}

FNR == 1 { finish(); section = "" }
/^[[:space:]]*(#|$)/ { next }
/^service / {
    finish()
    section = "service"
    service = $2; program = $3; names = "root"; domain = "-"
    if (NF < 3 || $2 !~ /^[A-Za-z0-9_@:.-]+$/ || $3 !~ /^\//) complain("service NAME PROGRAM")
    if (defined[$2]++) complain("a second service " $2)
    next
}
/^on / { finish(); section = "on"; if (NF < 2) complain("on TRIGGER"); next }
/^[^[:space:]]/ || section == "" { complain("no section begins with " $1); next }
!((section, $1) in least) { complain($1 " is not known below " section); next }
NF - 1 < least[section, $1] || NF - 1 > most[section, $1] { complain("words after " $1); next }
$1 == "user" || $1 == "group" {
    for (i = 2; i <= NF; ++i) names = names "," $i
}
$1 == "seclabel" {
    if ($2 !~ /^u:r:[a-z0-9_]+:s0$/) complain("no context of a process: " $2)
    domain = substr($2, 5, length($2) - 7)
}
$1 == "restart_period" && $2 !~ /^[0-9]+$/ { complain("no number of seconds: " $2) }
$1 == "rlimit" && ($2 !~ resources || $3 !~ /^[0-9]+$/ || $4 !~ /^[0-9]+$/) {
    complain("rlimit RESOURCE SOFT HARD")
}
$1 == "socket" {
    if ($3 !~ /^(stream|dgram|seqpacket)(\+passcred)?(\+listen)?$/) complain("no type of socket: " $3)
    if ($4 !~ /^0[0-7][0-7][0-7]$/) complain("no mode of a file: " $4)
    for (i = 5; i <= NF; ++i) names = names "," $i
}
$1 == "mkdir" && $3 != "" && $3 !~ /^0[0-7][0-7][0-7]$/ { complain("no mode of a folder: " $3) }

END { finish(); exit failed }
