# offered.zsh DIRECTORY LINE: prints the words that zsh offers at the end of LINE with the completion
# functions in DIRECTORY, one a line.
zmodload zsh/zpty
zpty shell zsh -f -i
zpty -w shell "PS1=; stty -echo; fpath=(${(q)1} \$fpath); autoload -Uz compinit; compinit -D -u"
# Each word that is offered is also printed between marks. Calls with one of the options O, A and D
# only ask which words would match.
zpty -w shell 'compadd() {
  local -a offered
  if [[ -z ${(M)@:#-[a-zA-Z]#[OAD]} ]]; then
    builtin compadd -O offered "$@"
    print -l -- "<${(@)^offered}>"
  fi
  builtin compadd "$@"
}; setopt extendedglob'
zpty -w shell 'bindkey "^I" complete-word; zstyle ":completion:*" list-prompt ""; unsetopt auto_menu'
zpty -w shell 'print READY'
zpty -r shell text '*READY*'
zpty -n -w shell "${2}"$'\t\x15print DONE\n'
zpty -r shell text '*DONE*'
print -r -- "$text" | tr -d '\r' | sed -n 's/^.*<\([^<>]*\)>$/\1/p'
zpty -d shell
