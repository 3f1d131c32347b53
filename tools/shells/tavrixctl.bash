# SPDX-License-Identifier: LGPL-3.0-or-later
# Completion of tavrixctl for bash, loaded by bash-completion. The program itself knows the words.

_tavrixctl() {
  local cur words cword
  # The names of settings hold a colon, at which bash would cut them.
  _get_comp_words_by_ref -n : cur words cword

  local known=() word line quote=
  for word in "${words[@]:1:cword}"; do
    # The words as they are typed, with their quotes; the last one may be open.
    case $word in
      \"* | \'*) quote=${word:0:1} word=${word:1} word=${word%"$quote"} ;;
      *) quote= word=${word//\\/} ;;
    esac
    known+=("$word")
  done

  COMPREPLY=()
  while IFS= read -r line; do
    word=${line%%$'\t'*}
    case $word in
      :files) compopt -o filenames; _filedir; continue ;;
      :folders) compopt -o filenames; _filedir -d; continue ;;
    esac
    [ -n "$quote" ] || printf -v word %q "$word"
    COMPREPLY+=("$word")
  done < <("$1" --complete "${known[@]}" 2>/dev/null)
  [ -n "$quote" ] || __ltrim_colon_completions "$cur"
}

complete -F _tavrixctl tavrixctl
