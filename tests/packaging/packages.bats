#!/usr/bin/env bats
# The packages as files.
# shellcheck disable=SC2016,SC2154  # texts for other shells; variables of support.bash

setup() {
  load support.bash
  cannot=$(cannot_package rpm rpm2cpio cpio lintian rpmlint)
  [[ -z $cannot ]] || skip "$cannot"
  work=$(mktemp -d "${TMPDIR:-/tmp}/jobmill-packages.XXXXXX")
}

teardown() { rm -rf "${work:-}"; }

names=(jobmill jobmill-client jobmill-gate jobmill-simulator jobmill-status python3-jobmill
  libjobmill-master0 libjobmill-master-dev)

@test "LintianFindsNothingThatHasNoReason" {
  lintian --allow-root --tag-display-limit 0 --fail-on error,warning "$packages"/*.deb
  # It would be found.
  dpkg-deb -R "$(deb jobmill)" "$work/broken"
  chmod 777 "$work/broken/usr/lib/jobmill/vkjobmill.exe"
  dpkg-deb --root-owner-group -b "$work/broken" "$work/broken.deb" >/dev/null
  never lintian --allow-root --fail-on error,warning "$work/broken.deb" >"$work/findings"
  grep -q 'non-standard-executable-perm.*vkjobmill.exe' "$work/findings"
}

@test "RpmlintFindsNothingThatHasNoReason" {
  rpmlint --config "$root_directory/deploy/rpmlint.toml" "$packages"/*.rpm >"$work/findings"
  grep -qE '8 packages and 0 specfiles checked; 0 errors, 0 warnings' "$work/findings"
}

@test "VersionIsTheSameEverywhere" {
  local name
  for name in "${names[@]}"; do
    [[ $(dpkg-deb -f "$(deb "$name")" Version) == "$version-1" ]]
    [[ $(rpm -qp --qf '%{VERSION}' "$(rpm_file "$name")") == "$version" ]]
  done
  dpkg-deb -x "$(deb jobmill-client)" "$work"
  [[ $("$work/usr/bin/vkmaster" --version) == "vkmaster $version" ]]
  grep -qE "^## $version - " "$root_directory/CHANGELOG.md"
}

# What a Debian package and an RPM put where, but for the places on which the systems do not agree.
tree() {
  (cd "$1" && find . -mindepth 1 \( -type l -printf '%p -> %l\n' -o -type f -printf '%p %m\n' \)) |
    sed -e 's:^\./lib/systemd:./usr/lib/systemd:' -e 's:/zsh/vendor-completions/:/zsh/site-functions/:' \
      -e 's:/usr/lib/python3/dist-packages/:/usr/share/jobmill/python/:' \
      -e 's:/usr/lib/[a-z0-9_]*-linux-gnu/:/usr/lib64/:' \
      -e '\:/usr/share/\(doc\|lintian\|python3\)/:d' | sort
}

@test "RpmsHoldWhatTheDebianPackagesHold" {
  local name
  for name in "${names[@]}"; do
    mkdir "$work/$name" "$work/$name/rpm"
    dpkg-deb -x "$(deb "$name")" "$work/$name/deb"
    (cd "$work/$name/rpm" && rpm2cpio "$(rpm_file "$name")" | cpio --quiet -id)
    tree "$work/$name/deb" >"$work/deb.txt"
    tree "$work/$name/rpm" | diff "$work/deb.txt" -
    (($(wc -l <"$work/deb.txt") >= 2))
    # The same bytes, too.
    [[ $name == jobmill-status || $name == python3-* || $name == lib* ]] ||
      cmp "$work/$name"/{deb,rpm}/usr/lib/jobmill/vk*[^s]
  done
  cd "$work/jobmill"
  diff -r deb/usr/share/jobmill rpm/usr/share/jobmill
  diff -r deb/etc rpm/etc
  diff -r deb/lib/systemd rpm/usr/lib/systemd
  diff -r {deb,rpm}/usr/share/doc/jobmill/docs
  cd "$work/jobmill-status"
  diff -r deb/lib/systemd rpm/usr/lib/systemd
  diff -r {deb,rpm}/usr/share/jobmill/monitoring
  cd "$work/jobmill-gate"
  diff -r deb/etc rpm/etc
  diff -r deb/lib/systemd rpm/usr/lib/systemd
  diff -r deb/usr/lib/sysusers.d rpm/usr/lib/sysusers.d
  cd "$work/python3-jobmill"
  diff -r deb/usr/lib/python3/dist-packages rpm/usr/share/jobmill/python
}

@test "ScriptletsOfTheRpmAreThoseOfTheDebianPackage" {
  dpkg-deb -e "$(deb jobmill)" "$work/control"
  local pair part
  for pair in postinst:after-install:POSTIN prerm:before-removal:PREUN postrm:after-removal:POSTUN; do
    IFS=: read -r script part tag <<<"$pair"
    rpm -qp --qf "%{$tag}" "$(rpm_file jobmill)" >"$work/rpm.$part"
    # Line by line, in this order, in both.
    for file in "$work/control/$script" "$work/rpm.$part"; do
      never grep '^<' <(diff "$root_directory/deploy/scriptlets/$part" "$file")
    done
    never grep -nE '^@' "$work/control/$script"
    sh -n "$work/control/$script" "$work/rpm.$part"
  done
  dpkg-deb -e "$(deb jobmill-gate)" "$work/gate"
  rpm -qp --qf '%{POSTIN}' "$(rpm_file jobmill-gate)" >"$work/rpm.gate"
  for file in "$work/gate/postinst" "$work/rpm.gate"; do
    never grep '^<' <(diff "$root_directory/deploy/scriptlets/gate-after-install" "$file")
    never grep -nE '^@' "$file"
    sh -n "$file"
  done
}

@test "StatusPageComesWithTheDaemonOfItsVersionAndWithNothingElse" {
  [[ $(dpkg-deb -f "$(deb jobmill-status)" Depends) == "jobmill (= $version-1)" ]]
  rpm -qpR "$(rpm_file jobmill-status)" | grep -qx "jobmill = $version-1"
}

@test "ConfigurationBelongsToTheAdministrator" {
  dpkg-deb -e "$(deb jobmill)" "$work/control"
  diff "$work/control/conffiles" - <<'FILES'
/etc/jobmill/README
/etc/jobmill/environment
/etc/jobmill/jobmill.conf
/etc/jobmill/users
/etc/logrotate.d/jobmill
/etc/needrestart/conf.d/jobmill.conf
FILES
  diff "$work/control/conffiles" <(rpm -qp --configfiles "$(rpm_file jobmill)")
  [[ $(rpm -qp --qf '[%{FILEFLAGS:fflags} %{FILENAMES}\n]' "$(rpm_file jobmill)" | grep -c '^cn ') == 6 ]]
}

@test "ConfigurationOfTheGateBelongsToTheAdministrator" {
  dpkg-deb -e "$(deb jobmill-gate)" "$work/control"
  diff "$work/control/conffiles" - <<'FILES'
/etc/jobmill/gate/gate.conf
/etc/jobmill/gate/users
/etc/needrestart/conf.d/jobmill-gate.conf
FILES
  diff "$work/control/conffiles" <(rpm -qp --configfiles "$(rpm_file jobmill-gate)")
}

@test "DaemonAndSimulatorComeWithoutTls" {
  local name needs
  for name in jobmill jobmill-simulator; do
    never grep -qE 'libssl|libcrypto' <(dpkg-deb -f "$(deb "$name")" Depends; rpm -qpR "$(rpm_file "$name")")
  done
  needs=$(dpkg-deb -f "$(deb jobmill-gate)" Depends)
  [[ $needs == *libssl3* && $needs != *'jobmill '* ]]
  rpm -qpR "$(rpm_file jobmill-gate)" | grep -q '^libssl\.so'
}

@test "NothingIsGranted" {
  local name
  for name in "${names[@]}"; do
    dpkg-deb --fsys-tarfile "$(deb "$name")" | tar -xO "./usr/share/doc/$name/copyright" >"$work/copyright"
    grep -q 'No licence has been chosen yet' "$work/copyright"
    grep -q 'nothing is granted' "$work/copyright"
    [[ $(rpm -qp --qf '%{LICENSE}' "$(rpm_file "$name")") == None ]]
  done
}

@test "LicenceOfWhatIsEmbeddedComesAlong" {
  local name=jobmill-client licence=$root_directory/third_party/uplot/LICENSE
  dpkg-deb --fsys-tarfile "$(deb "$name")" | tar -xO "./usr/share/doc/$name/copyright" >"$work/deb"
  (cd "$work" && rpm2cpio "$(rpm_file "$name")" | cpio --quiet -id "./usr/share/doc/$name/copyright")
  local file
  for file in "$work/deb" "$work/usr/share/doc/$name/copyright"; do
    tail -n "$(grep -c '' "$licence")" "$file" | diff - <(cat "$licence"; echo)
  done
}

@test "ArchiveIsWhatIsInstalledBelowAPrefix" {
  mkdir "$work/opt"
  tar -C "$work/opt" -xzf "$packages/jobmill-$version-linux-$architecture.tar.gz"
  install_to "$work/installed" /opt/jobmill >/dev/null
  diff <(cd "$work/installed/opt" && find jobmill ! -type d | sort) \
    <(cd "$work/opt" && find jobmill ! -type d ! -name CHANGELOG.md ! -name copyright | sort)
  grep -qF /opt/jobmill/bin/vkjobmill.exe "$work/opt/jobmill/share/jobmill/systemd/jobmill.service"
  # It is what it is wherever and whenever it is made.
  [[ $(tar -tvzf "$packages/jobmill-$version-linux-$architecture.tar.gz" |
    awk '{ print $2, $4, $5 }' | sort -u | wc -l) == 1 ]]
}

@test "SecondBuildElsewhereIsTheSame" {
  [[ -z ${CCACHE_DISABLE:-} ]] && command -v ccache >/dev/null || skip 'needs what has been compiled'
  [[ -z $(git -C "$root_directory" status --porcelain) ]] || skip 'needs all to be committed'
  git clone --quiet "$root_directory" "$work/clone"
  "$work/clone/scripts/package" "$work/again" >"$work/said"
  (cd "$packages" && sha256sum {,python3-,lib}jobmill*) >"$work/sums"
  (cd "$work/again" && sha256sum --check --quiet "$work/sums")
  (($(wc -l <"$work/sums") == 18))
}

@test "RpmsAreInstalledAndRemovedBesideEachOther" {
  mkdir -p "$work/root"/{etc,usr,var}
  local rpm=(rpm --root "$work/root") change=(--nodeps --noscripts)
  "${rpm[@]}" -i "${change[@]}" "$packages"/*.rpm 2>"$work/complaints"
  [[ $("${rpm[@]}" -qa | wc -l) == 8 ]]
  "${rpm[@]}" -V --nodeps "${names[@]}"
  [[ $(stat -c '%a %s' "$work/root/etc/jobmill/users") == '600 0' ]]
  "$work/root/usr/sbin/vkjobmill.exe" -v | grep -q '^Jobmill'
  echo 'OPTIONS="-p 1"' >"$work/root/etc/jobmill/jobmill.conf"
  "${rpm[@]}" -e "${change[@]}" "${names[@]}" 2>"$work/complaints"
  # What the administrator has changed is kept.
  [[ $(cat "$work/root/etc/jobmill/jobmill.conf.rpmsave") == 'OPTIONS="-p 1"' ]]
  cd "$work/root"
  [[ -z $(find . -path '*jobmill*' ! -type d ! -name '*.rpmsave') ]]
}

@test "WheelIsThePythonKit" {
  local wheel=$packages/jobmill-$version-py3-none-any.whl
  /usr/bin/python3 - "$wheel" "$root_directory/python/jobmill" <<'PYTHON'
import pathlib, sys, zipfile
wheel = zipfile.ZipFile(sys.argv[1])
kit = pathlib.Path(sys.argv[2])
files = {f"jobmill/{f.relative_to(kit)}": f for f in kit.rglob("*") if f.suffix in (".py", ".typed")}
assert {n for n in wheel.namelist() if ".dist-info/" not in n} == set(files), wheel.namelist()
assert all(wheel.read(name) == file.read_bytes() for name, file in files.items())
PYTHON
  mkdir "$work/deb"
  dpkg-deb -x "$(deb python3-jobmill)" "$work/deb"
  # Isolated: what is tried is the package, not the sources.
  (cd / && PYTHONPATH=$wheel /usr/bin/python3 -m jobmill.check --help) | grep -q simulator
  PYTHONPATH=$work/deb/usr/lib/python3/dist-packages /usr/bin/python3 -c \
    "import jobmill; assert jobmill.__version__ == '$version', jobmill.__version__"
}
