# bash completion for nkdevice (installed as share/bash-completion/completions/nkdevice).

_nkdevice()
{
    local cur prev words cword
    _init_completion || return
    case $prev in
        --data) _filedir -d; return ;;
        --serial | --tls-cert | --tls-key | --tls-ca | --tls-crl) _filedir; return ;;
        --listen | --baud | --address | --serial-number) return ;;
    esac
    COMPREPLY=($(compgen -W "--listen --serial --baud --address --serial-number --data --verbose -v
        --mqtt --fleet --topic-prefix --simulate --fault --poll-ms --tls-cert --tls-key --tls-ca --tls-crl --help -h
        --version" -- "$cur"))
}
complete -F _nkdevice nkdevice
