# simbox/enter tells shells in other networks where they are.
PS1="${SIMBOX_PROMPT:-box#} "
