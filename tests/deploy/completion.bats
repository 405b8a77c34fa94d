#!/usr/bin/env bats
# Completion in the shells, as it is installed: somebody types at a terminal and presses the tab key.
# shellcheck disable=SC2154  # variables of support.bash

setup() {
  load support.bash
  local tool
  for tool in python3 zsh; do command -v "$tool" >/dev/null || skip "needs $tool"; done
  [[ -e $bash_completion ]] || skip 'needs bash-completion'
  work=$(mktemp -d "${TMPDIR:-/tmp}/jobmill-completion.XXXXXX")
  install_to '' "$work" >"$work/install.txt"
  # bash-completion and zsh find the functions where they are installed.
  export PATH=$work/bin:$PATH XDG_DATA_DIRS=$work/share HOME=$work ZDOTDIR=$work LC_ALL=C.UTF-8
  printf '%s\n' "PS1='READY> '" "source $bash_completion" 'bind "set enable-bracketed-paste off"' \
    'bind "set page-completions off"' >"$work/.bashrc"
  printf '%s\n' "PS1='READY> '" "fpath=($work/share/zsh/site-functions \$fpath)" 'bindkey -e' \
    'unset zle_bracketed_paste' "autoload -U compinit && compinit -u -d $work/dump" >"$work/.zshrc"
  mkdir "$work/runs" "$work/runs/data"
  touch "$work/runs/plan one.toml"
  cd "$work/runs" || return
}
bash_completion=/usr/share/bash-completion/bash_completion

teardown() { rm -rf "${work:-}"; }

# A tab after these words makes those of them.
becomes() {
  local shell
  for shell in "bash --noprofile --rcfile $work/.bashrc -i" 'zsh -d -i'; do
    # shellcheck disable=SC2086  # a command and its options
    # zsh takes the slash after a directory away again.
    diff <(echo "$2") <("$BATS_TEST_DIRNAME/press_tab" "$1" $shell | sed 's:/\]$:]:')
  done
}
lists() { "$BATS_TEST_DIRNAME/press_tab" --list "$@" >"$work/listed"; }

@test "OptionsOfVkmasterAreCompleted" {
  becomes $'vkmaster --keep\t--lea\t' '[vkmaster][--keep-going][--leave]'
  becomes $'vkmaster --api 2016\t--st\tquart\t' '[vkmaster][--api][2016.2][--step][quarterly]'
  becomes $'vkmaster --api=2016\t--leave' '[vkmaster][--api=2016.2][--leave]'
}

@test "CommandsOfVkmasterAreCompletedAsAtItsPrompt" {
  becomes $'vkmaster --port 5000 first\tthen unti\t+30 ste\tmonth\trat\t' \
    '[vkmaster][--port][5000][first-step][then][until][+30][step][monthly][rates]'
  becomes $'vkmaster constrain P1 bh\t150' '[vkmaster][constrain][P1][bhp=150]'
  becomes $'vkmaster help shutd\t' '[vkmaster][help][shutdown]'
}

@test "FilesAndDirectoriesAreCompletedWhereTheyAreMeant" {
  becomes $'vkmaster --file pl\t--path da\t' '[vkmaster][--file][plan one.toml][--path][data]'
  becomes $'vkmaster run pl\t' '[vkmaster][run][plan one.toml]'
  becomes $'vkmaster repo\tda\t' '[vkmaster][report][data]'
  becomes $'vkmaster --rep\tpl\t' '[vkmaster][--report][plan one.toml]'
  # A directory is none of the files' names.
  becomes $'vkmaster --path pl\t' '[vkmaster][--path][pl]'
}

@test "JobmillctlIsCompleted" {
  becomes $'jobmillctl --vers\t' '[jobmillctl][--version]'
  becomes $'jobmillctl us\tad\t' '[jobmillctl][users][add]'
  becomes $'jobmillctl ser\t--lis\t' '[jobmillctl][serve][--listen]'
  becomes $'jobmillctl check --js\t--prog\tpl\t' '[jobmillctl][check][--json][--program][plan one.toml]'
}

@test "WhatMayFollowIsListed" {
  lists $'vkmaster sta\t\t' bash --noprofile --rcfile "$work/.bashrc" -i
  grep -qE '^start-date +status' "$work/listed"
  lists $'vkmaster sta\t' zsh -d -i
  grep -qE '^status +-- overview of the run' "$work/listed"
}
