#!/usr/bin/env bats
# vkmaster.exe and jobmill_master.dll under wine, against the daemon of this machine.
# shellcheck disable=SC1010,SC2154  # a word of vkmaster; variables of support.bash

setup() {
  load support.bash
  cannot=$(cannot_try)
  [[ -z $cannot ]] || skip "$cannot"
  work=$(mktemp -d "${TMPDIR:-/tmp}/jobmill-windows.XXXXXX")
}

teardown() {
  stop_daemon
  rm -rf "${work:-}"
}

@test "WholeRunGivesWhatItGivesOnLinux" {
  start_daemon
  local commands=(--json status then until 300 step monthly rates then data then ipr A bhp lift
    then shut A then until +30 then wells)
  "$programs/vkmaster" "${options[@]}" "${commands[@]}" >"$work/linux"
  vkmaster_exe "${options[@]}" "${commands[@]}" >"$work/windows"
  (($(wc -l <"$work/linux") > 15))
  # Without CR, too.
  cmp "$work/linux" "$work/windows"
}

@test "PlanOfAnEditorOnWindowsIsCarriedOut" {
  start_daemon
  # Byte order mark, CR LF, and names in which no code page has all of the letters.
  local folder="$work/Pläne Ω" plan
  mkdir "$folder"
  plan=$folder/Ölfeld.toml
  printf '\xef\xbb\xbftitle = "Förderung Ω"\r\n[advance]\r\nuntil = 90\r\nstep = 30\r\n[record]\r\n' >"$plan"
  printf 'directory = "Ergebnisse Ω"\r\ncommands = ["data"]\r\n[[event]]\r\nat = 60\r\n' >>"$plan"
  printf 'commands = ["shut A"]\r\n' >>"$plan"
  "$programs/vkmaster" "${options[@]}" run "$plan"
  local results="$folder/Ergebnisse Ω"
  mv "$results" "$work/linux"
  vkmaster_exe "${options[@]}" run "$plan"
  local file
  for file in data.csv events.csv; do cmp "$work/linux/$file" "$results/$file"; done
  # After these columns come the times that the steps took.
  cmp <(cut -d, -f1-3 "$work/linux/steps.csv") <(cut -d, -f1-3 "$results/steps.csv")
  grep -qF '"title": "Förderung Ω"' "$results/run.json"
  grep -qF '"end": "' "$results/run.json"
  [[ $(grep deck_sha256 "$results/run.json") == $(grep deck_sha256 "$work/linux/run.json") ]]
  # They are not overwritten silently.
  local status=0
  vkmaster_exe "${options[@]}" run "$plan" 2>"$work/refusal" || status=$?
  ((status == 2))
  grep -qF "Ergebnisse Ω' has the results of an earlier run" "$work/refusal"
  vkmaster_exe "${options[@]}" --overwrite run "$plan"
  vkmaster_exe report "$results" "$folder/Bericht Ω.html"
  grep -qF 'Förderung Ω' "$folder/Bericht Ω.html"
}

@test "CommandFileMayHaveAMarkAndCrLf" {
  start_daemon
  local file=$work/Befehle-é.txt
  printf '\xef\xbb\xbf# first\r\nuntil 30\r\ntime\r\n' >"$file"
  vkmaster_exe "${options[@]}" --json --file "$file" >"$work/out"
  grep -qF '{"command":"time","time_days":30.0' "$work/out"
  printf 'time\r\ntiem\r\n' >"$file"
  local status=0
  vkmaster_exe "${options[@]}" --file "$file" 2>"$work/errors" || status=$?
  ((status == 2))
  grep -qF 'Befehle-é.txt, line 2: No such command: tiem' "$work/errors"
}

@test "OptionsComeFromAFileWithCrLf" {
  start_daemon
  printf 'port=%s\r\nroot=TWOWELLS\r\nuser=demo\r\n' "$port" >"$work/settings.ini"
  vkmaster_exe --config "$work/settings.ini" --path "$data/" --csv time >"$work/out"
  grep -qx 'time_days' "$work/out"
}

# A program on the other side sends a command when it has the answer to the one before.
@test "CommandsOfAPipeAreAnsweredOneByOne" {
  start_daemon
  coproc master { vkmaster_exe "${options[@]}" --json 2>"$work/errors"; }
  local line
  printf 'time\r\n' >&"${master[1]}"
  read -r -t 40 line <&"${master[0]}"
  [[ $line == '{"command":"time",'* ]]
  printf 'until 30\r\n' >&"${master[1]}"
  read -r -t 40 line <&"${master[0]}"
  [[ $line == '{"command":"until","time_days":30.0,'* ]]
  local process=$master_PID input=${master[1]}
  exec {input}>&-
  wait "$process"
}

@test "LettersOfAllCodePagesArePassedOnAsTheyAre" {
  start_daemon
  local status=0
  vkmaster_exe "${options[@]}" data 'Bohrung-ÄΩ' 2>"$work/errors" || status=$?
  ((status == 2))
  grep -qF 'Bohrung-ÄΩ' "$work/errors"
  local model='Öl-Ω'
  cp "$data/TWOWELLS.afi" "$data/$model.afi"
  vkmaster_exe --port "$port" --path "$data/" --root "$model" --user 'Jörg' time
  grep -qF 'Jörg' "$work/daemon.out"
}

@test "PromptTakesLinesCompletesThemAndDropsThemOnCtrlC" {
  start_daemon
  timeout 100 "$root_directory/tests/windows/at_console" wine "$built/vkmaster.exe" "${options[@]}" <<'SCRIPT'
see TWOWELLS runs on .* day 0> 
type time\r
see time  0 days.*day 0> 
type tiem\r
see No such command: tiem.*day 0> 
type wel\t A\r
see PRODUCER.*day 0> 
type until 500
see until 500
type \x03
see day 0> 
type time\r
see time  0 days.*day 0> 
type quit\r
end 0
SCRIPT
  grep -q 'header: 65520' "$data/TWOWELLS.crvnlog"
}

@test "CtrlDEndsTheInputAtThePrompt" {
  start_daemon
  timeout 100 "$root_directory/tests/windows/at_console" wine "$built/vkmaster.exe" "${options[@]}" <<'SCRIPT'
see day 0> 
type tim\x04e\r
see time  0 days.*day 0> 
type \x04
end 0
SCRIPT
  grep -q 'header: 65520' "$data/TWOWELLS.crvnlog"
}

@test "CtrlCStopsAnAdvanceAfterItsStepAndTwiceEndsTheRun" {
  start_daemon --step-delay 2000
  timeout 100 "$root_directory/tests/windows/at_console" wine "$built/vkmaster.exe" "${options[@]}" <<'SCRIPT'
see day 0> 
type until 3650 step 30\r
see day 30 of 3650
type \x03
see Ctrl-C again ends the run
see note: Stopped at day 60, before day 3650
see day 60> 
type until 3650 step 30\r
see day 60 of 3650
type \x03
see Ctrl-C again ends the run
type \x03
see Interrupted: shutting the run down
end 130
SCRIPT
  eventually 10 grep -q 'header: 65520' "$data/TWOWELLS.crvnlog"
}

# Whoever starts the program finds the console as it was.
@test "ConsoleHasItsCodePageBackAndShowsWhatItDoesNotHave" {
  start_daemon
  timeout 100 "$root_directory/tests/windows/at_console" wine cmd <<SCRIPT
see >
type chcp 850\r
see 850.*>
type Z:${built//\//\\\\}\\\\vkmaster.exe ${options[*]} data Bohrung-\xc3\x84\xce\xa9\r
see No well is called 'Bohrung-ÄΩ'.*>
type chcp\r
see 850.*>
type exit\r
end 0
SCRIPT
}

@test "DaemonThatIsNotThereIsNamedInEnglish" {
  local status=0
  vkmaster_exe --port "$(free_port)" --path /data/ --root CASE time 2>"$work/errors" || status=$?
  ((status == 3))
  grep -qE '^vkmaster: Cannot connect to localhost port [0-9]+: Connection refused' "$work/errors"
  grep -q '^hint: Nobody listens there' "$work/errors"
  status=0
  vkmaster_exe --host 'no host has blanks' --port 5000 --path /data/ --root CASE time 2>"$work/errors" ||
    status=$?
  ((status == 3))
  grep -qF "vkmaster: Unknown host 'no host has blanks': Host not found" "$work/errors"
}

@test "ExamplesOfTheLibraryGiveWhatTheyGiveOnLinux" {
  start_daemon
  local examples=$root_directory/master/examples arguments=("$port" "$data/" TWOWELLS demo)
  x86_64-w64-mingw32-gcc-posix -Wall -Wextra -Werror -I "$root_directory/master" "$examples/forecast.c" \
    "$built/jobmill_master.dll" -o "$work/forecast.exe"
  cp "$built/jobmill_master.dll" "$work"
  windows "$work/forecast.exe" "${arguments[@]}" | tr -d '\r' >"$work/windows"
  export LD_LIBRARY_PATH=$programs/../lib
  gcc -Wall -Wextra -Werror -I "$root_directory/master" "$examples/forecast.c" \
    -L "$LD_LIBRARY_PATH" -ljobmill-master -o "$work/forecast"
  "$work/forecast" "${arguments[@]}" >"$work/linux"
  (($(wc -l <"$work/linux") == 13))
  cmp "$work/linux" "$work/windows"
  python3 "$examples/forecast.py" "${arguments[@]}" | cmp - "$work/linux"
  # What is wrong is said in a sentence.
  local status=0
  windows "$work/forecast.exe" "$port" "$data/" NOSUCHMODEL demo 2>"$work/errors" || status=$?
  ((status == 1))
  grep -q '^launch: error -3: ' "$work/errors"
}

@test "LibraryHasWhatTheDefinitionFileSaysAndNoMore" {
  x86_64-w64-mingw32-objdump -p "$built/jobmill_master.dll" |
    sed -n '/Ordinal\/Name Pointer/,/^$/s/.*\] jobmill/jobmill/p' | sort >"$work/exports"
  sed -n 's/^  //p' "$root_directory/master/jobmill_master.def" | sort | cmp - "$work/exports"
  nm -D --defined-only "$programs/../lib/libjobmill-master.so.0" | sed -n 's/.* T \(.*\)@@.*/\1/p' | sort |
    cmp - "$work/exports"
}

@test "OneFileIsEnoughAndSaysWhatItIs" {
  local file
  for file in "$built"/*; do
    file=${file##*/}
    # Of every Windows.
    never grep -vixE '(advapi32|iphlpapi|kernel32|msvcrt|mswsock|user32|ws2_32).dll' \
      <(x86_64-w64-mingw32-objdump -p "$built/$file" | sed -n 's/.*DLL Name: //p')
    python3 - "$built/$file" "$("$programs/vkmaster" --version | cut -d' ' -f2)" <<'PYTHON'
import sys
content = open(sys.argv[1], 'rb').read()
for text in ('ProductVersion\0' + sys.argv[2], 'FileDescription'):
    # The value begins at the next multiple of 4 bytes.
    assert any((part.encode('utf-16-le') in content) for part in (text, text.replace('\0', '\0\0'))), text
PYTHON
  done
  for file in "$built"/*.exe; do grep -qa activeCodePage "$file"; done
}
