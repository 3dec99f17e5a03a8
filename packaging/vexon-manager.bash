# SPDX-License-Identifier: Apache-2.0
# bash completion for vexon-manager. The options are those that the program itself lists; what
# follows one that takes a value is a file name, as for all but a few of them.

_vexon_manager() {
    # shellcheck disable=SC2034  # _init_completion sets all of them
    local cur prev words cword
    _init_completion || return
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_parse_help "$1")" -- "$cur")
        return
    fi
    _filedir
} && complete -F _vexon_manager vexon-manager
