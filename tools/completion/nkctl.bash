# bash completion for nkctl and nkdevice (installed as share/bash-completion/completions/<program>).

_nkctl()
{
    local cur prev words cword
    _init_completion || return

    local globals="--device -d --devices-file --serial --baud --address -a --from --timeout -t --json --human
        --verbose -v --tls-cert --tls-key --tls-ca --tls-crl --help -h --version"
    local commands="state config schedules image events statistics display-config time shutdown decode encode"

    case $prev in
        --devices-file | --serial | -o | --out | --tls-cert | --tls-key | --tls-ca | --tls-crl)
            _filedir
            return
            ;;
        --sort)
            COMPREPLY=($(compgen -W "time-first-desc time-first-asc time-last-desc time-last-asc id-desc id-asc" -- "$cur"))
            return
            ;;
        --device | -d | --baud | --address | -a | --from | --timeout | -t | --id | --mime | --name | --task | \
            --limit | --since | --version | --telegram-id)
            return
            ;;
    esac

    # The command (and its sub-command) typed so far.
    local i command="" sub=""
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            -*) ;;
            *)
                case ${words[i - 1]} in
                    --device | -d | --devices-file | --serial | --baud | --address | -a | --from | --timeout | -t | \
                        --tls-cert | --tls-key | --tls-ca | --tls-crl) continue ;;
                esac
                if [[ -z $command ]]; then command=${words[i]}; elif [[ -z $sub ]]; then sub=${words[i]}; fi
                ;;
        esac
    done

    case $command in
        "") COMPREPLY=($(compgen -W "$globals $commands" -- "$cur")) ;;
        config | schedules)
            if [[ -z $sub ]]; then COMPREPLY=($(compgen -W "push checksum" -- "$cur")); else _filedir json; fi
            ;;
        image)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "push remove" -- "$cur"))
            elif [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--id --mime" -- "$cur"))
            else
                _filedir
            fi
            ;;
        state) COMPREPLY=($(compgen -W "--name" -- "$cur")) ;;
        events) COMPREPLY=($(compgen -W "--sort --task --limit --since" -- "$cur")) ;;
        decode) _filedir ;;
        encode)
            if [[ $cur == -* ]]; then COMPREPLY=($(compgen -W "--out -o --hex --version --telegram-id" -- "$cur")); else _filedir json; fi
            ;;
    esac
}
complete -F _nkctl nkctl
