#!/usr/bin/env bats
# The manual pages, as they are installed.
# shellcheck disable=SC2154  # variables of support.bash

setup() {
  load support.bash
  command -v pandoc >/dev/null || skip 'needs pandoc, when it is configured'
  local tool
  for tool in man mandb mandoc; do command -v "$tool" >/dev/null || skip "needs $tool"; done
  work=$(mktemp -d "${TMPDIR:-/tmp}/jobmill-manual.XXXXXX")
  install_to '' "$work" >"$work/install.txt"
  manual=$work/share/man
  export MANPATH=$manual MANWIDTH=80 LC_ALL=C.UTF-8
}

teardown() { rm -rf "${work:-}"; }

# Names and sections of the list that they are made from.
listed() { sed -nE 's/^([^# ]+) ([0-9]) .*/\1 \2/p' "$root_directory/deploy/manual/pages"; }
text_of() { man --warnings "$2" "$1" 2>"$work/complaints" | col -bx; }

@test "EveryProgramAndEveryNameOfTheListHasAPage" {
  local name section
  while read -r name section; do
    [[ $(man --where "$section" "$name") == "$manual/man$section/$name.$section.gz" ]]
  done < <(listed)
  (($(listed | wc -l) == $(find "$manual" -type f | wc -l)))
  for name in "$work"/bin/vk*; do [[ $name == *.sh ]] || man --where "${name##*/}"; done
}

@test "PagesAreFoundByNameAndByWhatTheySay" {
  mandb --create --quiet "$manual"
  local name section
  while read -r name section; do
    whatis --section="$section" "$name" | grep -qE "^$name \($section\) +- [a-z]"
  done < <(listed)
  apropos simulations | grep -q '^vkjobmill\.exe (8)'
  apropos contract | grep -q '^jobmill-script (7)'
  never apropos nosuchthing 2>/dev/null
}

@test "LintFindsNothing" {
  local page
  for page in "$manual"/*/*; do
    zcat "$page" | mandoc -T lint -W warning
  done
  # It would be found.
  never mandoc -T lint -W warning >/dev/null < <(zcat "$page" | sed 's/^\.SH DESCRIPTION/.PP\n&/')
}

@test "PagesFitATerminalOfEightyColumns" {
  local name section
  while read -r name section; do
    text_of "$name" "$section" >"$work/text"
    [[ ! -s $work/complaints ]]
    never grep -nE '.{81}' "$work/text"
    (($(wc -l <"$work/text") > 40))
    # Nothing is left of the form of the sources.
    never grep -nE '\]\(|\*\*|^ *\||```' "$work/text"
  done < <(listed)
}

@test "ReferencesLeadSomewhere" {
  local name section reference
  while read -r name section; do
    text_of "$name" "$section"
  done < <(listed) | sed '/^[A-Z_.-]*([0-9])  /d; /^jobmill [0-9.]* /d' >"$work/text"
  cat "$work"/share/jobmill/systemd/*.service "$root_directory/deploy/etc/README" >>"$work/text"
  grep -oE '\b[a-z][a-z_.-]+\([1-8]\)' "$work/text" | sort -u >"$work/references"
  (($(wc -l <"$work/references") == $(listed | wc -l)))
  while IFS='()' read -r name section; do man --where "$section" "$name"; done <"$work/references"
  grep -oE '[a-z-]+\.md\b' "$work/text" | sort -u >"$work/files"
  grep -q '^security.md$' "$work/files"
  while read -r reference; do [[ -e $work/share/doc/jobmill/docs/$reference ]]; done <"$work/files"
}
