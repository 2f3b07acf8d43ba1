# Read by the shell in the terminal of in-zsh. What its completion would add is printed between two marks.
PS1= PS2=
fpath=("$COMPLETIONS" $fpath)
autoload -Uz compinit
compinit -u -D

compadd() {
    # With one of these it adds nothing.
    if [[ ${@[1,(i)(-|--)]} != *-[OAD]\ * ]]; then
        local -a found
        builtin compadd -A found "$@"
        print -rC1 -- $found
    fi
    builtin compadd "$@"
}

show() {
    print '<<begin'
    _main_complete
    print 'end>>'
    compstate[insert]= compstate[list]=
}
zle -C show complete-word show
bindkey '^I' show
print 'ready for a line'
