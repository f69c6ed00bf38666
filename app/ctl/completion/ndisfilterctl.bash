# bash completion of ndisfilterctl. Copy it to /usr/share/bash-completion/completions/ndisfilterctl, or source it.

_ndisfilterctl()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command= subcommand= word
    local -i index
    COMPREPLY=()

    case $previous in
        --write | --device)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            return
            ;;
        --drive-c)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -d -- "$current")
            return
            ;;
        --direction)
            mapfile -t COMPREPLY < <(compgen -W 'in out loop' -- "$current")
            return
            ;;
    esac

    for ((index = 1; index < COMP_CWORD; ++index)); do
        word=${COMP_WORDS[index]}
        case $word in
            --device) ((++index)) ;;
            -*) ;;
            *)
                if [[ -z $command ]]; then
                    command=$word
                elif [[ -z $subcommand ]]; then
                    subcommand=$word
                fi
                ;;
        esac
    done

    local words=
    case $command in
        '') words='version adapters ipconfig media dump events capture debugflag congestion diag watch inject state --version' ;;
        ipconfig)
            words='get set'
            [[ $subcommand == set ]] && words='--address --router --dhcp --dns --wins'
            ;;
        media) words='get set' ;;
        dump) words='on off show' ;;
        events) words='clear --follow --raw' ;;
        capture)
            words='start stop'
            [[ -n $subcommand ]] && words='--drive-c'
            ;;
        debugflag) words='reload' ;;
        diag)
            words='filter driver'
            [[ $subcommand == filter ]] && words='help show info hookapi shmem adapter driver filter timer ioctl'
            ;;
        watch) words='--write --adapter --count --seconds --quiet' ;;
        inject)
            words='--adapter --direction --repeat --timeout'
            if [[ $current != -* ]]; then
                compopt -o filenames
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                return
            fi
            ;;
    esac
    case $command in
        ipconfig | media | dump) [[ -n $subcommand && $words == [gos]* ]] && words= ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words --json --device --help" -- "$current")
}
complete -F _ndisfilterctl ndisfilterctl
