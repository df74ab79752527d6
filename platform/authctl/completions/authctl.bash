# SPDX-FileCopyrightText: 2026 The kavet authors
# SPDX-License-Identifier: BSD-3-Clause
# shellcheck shell=bash

# Completes the arguments of authctl in bash.

_authctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command='' word choices i
    local commands="methods login state cancel options certs session unlock monitor"
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        case ${COMP_WORDS[i - 1]} in
        --timeout | --method | --cert | --user) continue ;; # the option's value
        esac
        [[ $word == -* || $command ]] || command=$word
    done

    case $previous in
    --method)
        choices=$(authctl --timeout 2 methods 2>/dev/null | sed 's/[ :].*//')
        mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$current")
        return
        ;;
    --user)
        mapfile -t COMPREPLY < <(compgen -u -- "$current")
        return
        ;;
    --cert | --timeout)
        COMPREPLY=()
        return
        ;;
    esac

    choices="--json --timeout --help"
    case $command in
    "") choices+=" --version $commands" ;;
    login) choices+=" --method --cert $(compgen -u)" ;;
    state | cancel | unlock) choices+=" $(compgen -u)" ;;
    options) choices+=" --method --user" ;;
    certs) choices+=" --method" ;;
    session) [[ $previous == session ]] && choices="start stop" || choices+=" --unmanaged $(compgen -u)" ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$choices" -- "$current")
}

complete -F _authctl authctl
