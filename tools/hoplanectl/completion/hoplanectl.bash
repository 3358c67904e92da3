# SPDX-License-Identifier: MIT
# Completion of hoplanectl for bash.

# The applications that have a configuration, one a line.
_hoplanectl_applications() {
  local documents folder
  documents=$(sed -n 's/^XDG_DOCUMENTS_DIR="\(.*\)"$/\1/p' \
    "${XDG_CONFIG_HOME:-$HOME/.config}/user-dirs.dirs" 2>/dev/null)
  documents=${documents/#\$HOME/$HOME}
  for folder in "${documents:-$HOME/Documents}"/*/; do
    [ -f "${folder}switch.ini" ] && basename "$folder"
  done
}

# The Ethernet connections that NetworkManager knows, one a line, without those that set refuses.
_hoplanectl_connections() {
  nmcli -e no -g NAME,TYPE connection show 2>/dev/null | sed -n 's/:802-3-ethernet$//p' |
    grep -Ev "[[:cntrl:]'\"\`\$\\;|&<>()%]|^[- ]| \$|^(h|he|hel|help|id|uuid|a?path|filename)\$"
}

# Offers the lines of standard input that begin with the word; they may contain blanks. Behind an
# opened quote they need no other.
_hoplanectl_offer_lines() {
  local line begin=${1//[\"\'\\]/} format=%q
  [[ $1 == [\"\']* ]] && format=%s
  while IFS= read -r line; do
    # shellcheck disable=SC2059 # the format is one of the two above
    [[ $line == "$begin"* ]] && COMPREPLY+=("$(printf "$format" "$line")")
  done
}

# Readline quotes the names of files itself.
_hoplanectl_offer_files() {
  compopt -o filenames
  mapfile -t COMPREPLY < <(compgen -f -- "${1//[\"\'\\]/}")
}

_hoplanectl_offer() {
  local word=$1
  shift
  mapfile -t COMPREPLY < <(compgen -W "$*" -- "$word")
}

# Those of set network that go with the ones that are there already.
_hoplanectl_network_options() {
  local others=("${COMP_WORDS[@]}")
  unset "others[COMP_CWORD]"
  case " ${others[*]} " in
    *' --dhcp '*) return ;;
    *' --address '* | *' --gateway '* | *' --dns '*) ;;
    *) echo --dhcp ;;
  esac
  [[ " ${others[*]} " == *' --address '* ]] || echo --address
  [[ " ${others[*]} " == *' --gateway '* ]] || echo --gateway
  echo --dns
}

# The options of a command beside those that all have.
_hoplanectl_options() {
  case $1 in
    show) echo --raw ;;
    set) [ "$2" != network ] || _hoplanectl_network_options ;;
    import) echo --from --dry-run ;;
    check) echo --probe ;;
    probe) echo --attempts --interval ;;
    search) echo --timeout --verbose ;;
  esac
}

# The values of a command's next argument; $2 and on are those that are there already.
_hoplanectl_arguments() {
  local command=$1 word=$2
  shift 2
  case "$command/$#/${1-}" in
    set/0/*) _hoplanectl_offer "$word" server network connection enabled ;;
    set/1/server | set/1/network) _hoplanectl_offer "$word" 1 2 ;;
    set/1/enabled) _hoplanectl_offer "$word" on off ;;
    set/1/connection) _hoplanectl_offer_lines "$word" < <(_hoplanectl_connections) ;;
    log/0/*) _hoplanectl_offer_files "$word" ;;
  esac
}

# Sets words: those up to the cursor. Readline ends a word at each colon, and a name does not; what
# stands together is joined again.
_hoplanectl_join() {
  local rest=$COMP_LINE word trimmed
  words=()
  for word in "${COMP_WORDS[@]:0:COMP_CWORD + 1}"; do
    trimmed=${rest#"${rest%%[![:blank:]]*}"}
    if [[ $trimmed == "$rest" && ${#words[@]} -gt 0 && ($word == :* || ${words[-1]} == *:) ]]; then
      words[-1]+=$word
    else
      words+=("$word")
    fi
    rest=${trimmed#"$word"}
  done
}

# Takes from what is offered what stands before the last colon: readline leaves it where it is.
_hoplanectl_trim() {
  local before=$1 index
  [[ ${COMP_WORDS[COMP_CWORD]} != "$before" ]] || return 0
  while [[ $before == *:* ]]; do
    before=${before#*:}
    for index in "${!COMPREPLY[@]}"; do
      COMPREPLY[index]=${COMPREPLY[index]#*:}
    done
  done
}

_hoplanectl() {
  local words
  COMPREPLY=()
  _hoplanectl_join
  _hoplanectl_complete
  _hoplanectl_trim "${words[-1]}"
}

_hoplanectl_complete() {
  local last=$((${#words[@]} - 1))
  local word=${words[last]} previous=${words[last - 1]}
  local command='' arguments=() index
  # "--app=x" is three words here.
  if [ "$word" = = ]; then
    word=''
  elif [ "$previous" = = ]; then
    previous=${words[last - 2]}
  fi
  for ((index = 1; index < last; ++index)); do
    case ${words[index]} in
      --app | --address | --gateway | --dns | --from | --attempts | --interval | --timeout)
        ((++index))
        [ "${words[index]-}" != = ] || ((++index))
        ;;
      -*) ;;
      *)
        if [ -z "$command" ]; then
          command=${words[index]}
        else
          arguments+=("${words[index]}")
        fi
        ;;
    esac
  done

  case $previous in
    --app) _hoplanectl_offer_lines "$word" < <(_hoplanectl_applications); return ;;
    --from) _hoplanectl_offer_files "$word"; return ;;
    --address | --gateway | --dns | --attempts | --interval | --timeout) return ;;
  esac
  if [[ $word == -* ]]; then
    # shellcheck disable=SC2046 # options are single words
    _hoplanectl_offer "$word" --app --json --help $([ -n "$command" ] || echo --version) \
      $(_hoplanectl_options "$command" "${arguments[0]-}")
  elif [ -z "$command" ]; then
    _hoplanectl_offer "$word" show set import check plan probe search watch log
  else
    _hoplanectl_arguments "$command" "$word" "${arguments[@]}"
  fi
}

complete -F _hoplanectl hoplanectl
