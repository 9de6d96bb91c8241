# SPDX-License-Identifier: Apache-2.0
# Completion in bash for qdlogcfg, qdlogger, qdlogview, qdlogmgr and qdliscat. What there is to
# choose from the tools tell (--complete); names of the configuration come from qdlogview, which
# lies beside the others. It needs nothing of the package bash-completion but to be found by it.

# The words that the value of an option may be, a line each; fails where there is no list.
#   _qdul_values TOOL OPTION PRODUCT CONFIG
_qdul_values() {
    local tool=$1 option=$2 product=$3 config=$4 view
    case $tool in
        */*) view=${tool%/*}/qdlogview ;;
        *) view=qdlogview ;;
    esac
    case $option in
        -P | --product) "$view" ${config:+"--config=$config"} --complete=products ;;
        -u | --originator | --file-originator)
            "$view" ${config:+"--config=$config"} ${product:+"--product=$product"} --complete=originators
            ;;
        -L | --logset) "$view" ${config:+"--config=$config"} ${product:+"--product=$product"} --complete=logsets ;;
        -k | --kind)
            case $tool in
                *qdlogcfg) printf '%s\n' app diag debug audit secure-audit ;;
                *) "$tool" --complete=kinds ;;
            esac
            ;;
        -p | --priority | --severity)
            case $tool in
                *qdlogcfg) printf '%s\n' 0 1 2 3 4 ;;
                *) "$tool" --complete=severities ;;
            esac
            ;;
        -l | --level) printf '%s\n' 1 2 3 4 5 6 ;;
        -F | --field | --fields) "$tool" --complete=fields ;;
        -o | --output) case $tool in *qdlogview) "$tool" --complete=outputs ;; *) return 1 ;; esac ;;
        --color) printf '%s\n' auto always never ;;
        --per) printf '%s\n' minute hour day ;;
        *) return 1 ;;
    esac 2>/dev/null
}

# All options of a tool, those with a value with "=" behind the name.
_qdul_options() {
    "$1" --complete=options 2>/dev/null
}

_qdul_commands() {
    case $1 in
        *qdlogview | *qdlogger) ;;
        *) "$1" --complete=commands 2>/dev/null ;;
    esac
}

# COMPREPLY is the lines of standard input that begin with a text.
_qdul_beginning_with() {
    local line
    COMPREPLY=()
    while IFS= read -r line; do
        [[ $line != "$1"* ]] || COMPREPLY+=("$line")
    done
}

_qdul() {
    local tool=${1/#\~\//$HOME/} words=() word cur option="" product="" config="" group="" command="" sign="" values next i
    # "=" is a word of its own in COMP_WORDS: --product=5 is three of them.
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        [ "$word" = "=" ] || words+=("$word")
    done
    cur=${COMP_WORDS[COMP_CWORD]}
    [ "$cur" != "=" ] || cur=""
    # What the words in front say: options with their values, command
    values=" $(_qdul_options "$tool" | tr '\n' ' ') "
    for word in "${words[@]}"; do
        if [ -n "$option" ]; then
            case $option in
                -P | --product) product=$word ;;
                --config) config=$word ;;
            esac
            option=""
            continue
        fi
        case $word in
            --*) [[ $values != *" $word= "* ]] || option=$word ;;
            -?) # in the list it stands in front of its long names
                if [[ $values == *" $word --"* ]]; then
                    next=${values#*" $word "}
                    [[ ${next%% *} != *= ]] || option=$word
                fi
                ;;
            *)
                if [ -z "$command" ]; then
                    command=$word
                elif [ "$command" = product ]; then
                    command="product $word"
                fi
                ;;
        esac
    done

    compopt -o default 2>/dev/null # file names where there is no list
    if [ -n "$option" ]; then
        values=$(_qdul_values "$tool" "$option" "$product" "$config") || return 0
        compopt +o default 2>/dev/null
        _qdul_beginning_with "$cur" <<<"$values"
        return 0
    fi
    case $cur in
        -*)
            compopt +o default 2>/dev/null
            _qdul_beginning_with "$cur" < <(_qdul_options "$tool")
            [[ ${COMPREPLY[0]:-} != *= || ${#COMPREPLY[@]} != 1 ]] || compopt -o nospace 2>/dev/null
            return 0
            ;;
    esac
    case $command in
        "") group=$(_qdul_commands "$tool" | sed 's/ .*//' | sort -u) ;;
        product) group=$(_qdul_commands "$tool" | sed -n 's/^product //p') ;;
        "product show" | "product remove") group=$(_qdul_values "$tool" --product "" "$config") ;;
        get | set | unset)
            case $tool in
                *qdlogcfg)
                    [ "$command" != set ] || sign="="
                    group=$("$tool" --help 2>/dev/null | sed -n "/^Settings:/,/^\$/s/^  \([A-Za-z0-9]*\):.*/\1$sign/p")
                    [ -z "$sign" ] || compopt -o nospace 2>/dev/null
                    ;;
            esac
            ;;
    esac
    [ -z "$group" ] || _qdul_beginning_with "$cur" <<<"$group"
    return 0
}

complete -F _qdul qdlogcfg qdlogger qdlogview qdlogmgr qdliscat
