#compdef authctl
# SPDX-FileCopyrightText: 2026 The kavet authors
# SPDX-License-Identifier: BSD-3-Clause

# Completes the arguments of authctl in zsh.

local -a everywhere commands
everywhere=(
    '--json[print one JSON object per line]'
    '--timeout[the timeout for a reply or an outcome]:seconds'
    '(- *)--help[show help]'
)
commands=(
    'methods:list the authentication methods'
    'login:authenticate a user'
    'state:show the state of a user'
    'cancel:cancel the open attempt of a user'
    'options:show or set options'
    'certs:list the certificates that the client offers'
    'session:report that a session has started or stopped'
    'unlock:unlock a user'
    "monitor:show the service's signals"
)

local line state
_arguments -C $everywhere '(- *)--version[show the version]' '1:command:->command' '*::argument:->argument' && return
case $state in
command) _describe command commands ;;
argument)
    case $line[1] in
    login) _arguments $everywhere '--method[the method]:method' '--cert[the certificate]:certificate' '1:user:_users' ;;
    state | cancel | unlock) _arguments $everywhere '1:user:_users' ;;
    options)
        _arguments $everywhere '--method[the method]:method' "--user[a user's options]:user:_users" \
            '1:option:()' '2:value:()'
        ;;
    certs) _arguments $everywhere '--method[the method]:method' ;;
    session)
        _arguments $everywhere "--unmanaged[leave the user's client alone]" '1:event:(start stop)' '2:user:_users'
        ;;
    *) _arguments $everywhere ;;
    esac
    ;;
esac
