# shellcheck shell=bash
# How a bundle is laid out, for ./dev and the tools; sourced by each.

on_mac() { [[ $(uname -s) == Darwin ]]; }
say() { printf 'dev: %s\n' "$*"; }
fail() { say "$*" >&2; exit 1; }

ENTRY=com/norvale/app/daemon/entry/NativeLauncher.class

# find_jars JAR-OR-FOLDER...: sets the array `jars` to the jars given and those in the folders given,
# and fails unless they make a class path on which the launcher finds one entry class.
find_jars() {
  local given jar twice entries=()
  jars=()
  for given; do
    [[ -n $given ]] || fail "a jar's name is empty"
    [[ $given == /* ]] || given=$PWD/$given
    if [[ -d $given ]]; then
      for jar in "$given"/*.jar; do
        [[ -e $jar || -L $jar ]] || fail "no jar in $given"
        jars+=("$jar")
      done
    else
      jars+=("$given")
    fi
  done
  for jar in "${jars[@]}"; do
    check_jar "$jar"
    if has_entry "$jar"; then entries+=("${jar##*/}"); fi
  done
  # Whatever the case of the letters: a Mac's file system takes both for one.
  twice=$(printf '%s\n' "${jars[@]##*/}" | sort -f | uniq -di)
  [[ -z $twice ]] || fail "two jars are named ${twice%%$'\n'*}"
  ((${#entries[@]})) || fail "none of the jars holds the entry class $ENTRY"
  ((${#entries[@]} == 1)) || fail "more than one jar holds the entry class $ENTRY: ${entries[*]}"
}

check_jar() {
  [[ $1 == *.jar ]] || fail "$1 is no jar: the launcher takes files whose names end with .jar"
  [[ ${1##*/} != *[:$'\n']* ]] || fail "$1: a class path cannot hold a colon or a line break"
  [[ -f $1 ]] || fail "$1 does not exist, or is no file"
  [[ -r $1 ]] || fail "$1 cannot be read"
  # A zip file ends with its directory; behind that comes a comment of at most 64 KiB.
  tail -c 65557 "$1" | LC_ALL=C grep -ac $'PK\005\006' >/dev/null || fail "$1 is no jar, or cut off"
}

# Names stand uncompressed in a jar, so that most jars need not be opened to see that it is not there.
has_entry() {
  local names
  LC_ALL=C grep -qaF "$ENTRY" "$1" || return 1
  names=$("$JAVA_HOME/bin/jar" --list --file "$1" 2>/dev/null) || fail "$1 is a damaged jar"
  grep -qxE "(META-INF/versions/[0-9]+/)?$ENTRY" <<<"$names"
}

# lay_out CONTENTS LAUNCHER JAR...
lay_out() {
  mkdir -p "$1/MacOS"
  cp "$2" "$1/MacOS/kestrel"
  add_jars "$1" "${@:3}"
}

# add_jars CONTENTS JAR...: with their time stamps, by which the JVM knows them again.
add_jars() {
  local lib=$1/lib
  rm -rf "$lib"
  mkdir -p "$lib"
  cp -p "${@:2}" "$lib/"
  chmod u+rw,go+r "$lib"/*
}

# runtime_home FOLDER: where in it the Java runtime lies, which for Macs may be Contents/Home.
runtime_home() { if [[ -d $1/Contents/Home ]]; then echo "$1/Contents/Home"; else echo "$1"; fi; }

# add_runtime CONTENTS FOLDER: a copy of the runtime, with what lies about its home on a Mac.
add_runtime() {
  local runtime=$1/jre/Contents from=$2 link
  rm -rf "$1/jre"
  if [[ -d $from/Contents/Home ]]; then from=$from/Contents; else runtime=$runtime/Home; fi
  mkdir -p "$runtime"
  cp -RP "$from/." "$runtime/"
  chmod -R u+w "$runtime"
  # Some systems keep a runtime's settings elsewhere; a bundle brings all along.
  find "$runtime" -type l -lname '/*' | while IFS= read -r link; do
    if [[ -e $link ]]; then cp -RL "$link" "$link.copy"; fi
    rm "$link"
    if [[ -e $link.copy ]]; then mv "$link.copy" "$link"; fi
  done
}

# is_mac_library FILE: whether it is a library for x86-64 Macs, alone or among those for others.
is_mac_library() {
  local bytes i count
  bytes=$(od -An -v -tx1 -N 168 "$1" 2>/dev/null | tr -d ' \n')
  case $bytes in
    cffaedfe07000001????????06000000*) return 0 ;;
    cafebabe0000000[1-8]*) count=${bytes:15:1} ;;
    *) return 1 ;;
  esac
  for ((i = 0; i < count; i++)); do
    [[ ${bytes:16 + 40 * i:8} != 01000007 ]] || return 0
  done
  return 1
}

# jvm_args LOG: what the launcher gave the JVM, one option a line, but for the hooks, which are
# functions.
jvm_args() {
  awk '/ startJVM JVM Args: *$/ { inside = 1; next } inside && /^\t$/ { exit }
    inside { sub(/^\t/, ""); if (!/^(vfprintf|exit|abort)$/) print }' "$1"
}
