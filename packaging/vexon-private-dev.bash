# SPDX-License-Identifier: Apache-2.0
# bash completion for vexon-private-dev: its arguments are a command and that command's own.

_vexon_private_dev() {
    # shellcheck disable=SC2034  # _init_completion sets all of them
    local cur prev words cword
    _init_completion || return
    if [[ $cword == 1 && $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_parse_help "$1")" -- "$cur")
        return
    fi
    _command_offset 1
} && complete -F _vexon_private_dev vexon-private-dev
