# Completion of zelvctl for bash: the program itself says what can come next.
# Nothing that it says is expanded here: names of events are strangers' texts.

_zelvctl() {
  local -a words
  local begun head line=${COMP_LINE:0:COMP_POINT}
  read -ra words <<<"$line"
  [[ $line == *[[:blank:]] ]] && words+=("")
  begun=${words[-1]}
  mapfile -t COMPREPLY < <("$1" complete "${words[@]:1}" 2>/dev/null)
  if [[ ${COMPREPLY[0]-} == " files" ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$begun")
    compopt -o filenames 2>/dev/null
    return
  fi
  head=${begun%"${begun##*[=:]}"} # bash completes what stands behind these, and keeps the rest
  COMPREPLY=("${COMPREPLY[@]#"$head"}")
}

complete -F _zelvctl zelvctl
