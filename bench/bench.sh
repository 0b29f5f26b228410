#!/usr/bin/env bash
# bench.sh BUILD-FOLDER [ROUNDS]: measures how fast launches are. Needs JAVA_HOME. The first table has ten
# times the rounds.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$(cd "$1" && pwd)
rounds=${2:-40}
work=$build/bench/work
sample=$build/bundler/sample.jar
unset KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE NORVALED_DEBUG_PORT NORVALED_JVM_ARGS
unset JAVA_TOOL_OPTIONS JDK_JAVA_OPTIONS _JAVA_OPTIONS
export KESTREL_NATIVE_LOG_DIR_OVERRIDE=$work/logs
rm -rf "$work"

section() { printf '\n## %s\n\n' "$1"; }
measure() { "$build/bench/measure" "$@"; }
launcher() { echo "$work/$1.app/Contents/MacOS/kestrel"; }

# make COMMAND NAME [OPTION...] ITEM... [-- ARG...]: makes a bundle with the bundler's command.
make() {
  "$JAVA_HOME/bin/java" -jar "$build/bundler/bundler.jar" "$1" "$build/kestrel" --dest "$work" \
    --name "$2" --mac-package-identifier bench "${@:3}" >&2
}

# instructions COMMAND...: prints how many instructions it takes. callgrind counts a "rep movsb" copy as
# one instruction per byte, other copies as one per 32 bytes. The tunable makes the C library never use
# it, so runs are comparable.
instructions() {
  local count
  count=$( (GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=1000000000 valgrind --tool=callgrind \
    --callgrind-out-file=/dev/null "$@" 2>&1 || true) | sed -n 's/.*Collected : //p')
  if [[ -z $count ]]; then
    echo "bench: valgrind counted nothing for $1" >&2
    exit 1
  fi
  echo "$count"
}

# system_calls COMMAND...: prints how many system calls it makes.
system_calls() {
  (strace -f -c "$@" 2>&1 || true) | awk '$NF == "total" { print $4 }'
}

# per_argument COUNT: prints the launcher's instructions for each of COUNT arguments.
per_argument() {
  local arguments
  mapfile -t arguments < <(seq -f 'argument-%.0f' "$1")
  echo $((($(instructions "$refused" "${arguments[@]}") - own) / $1))
}

# per_jar COUNT: prints the launcher's instructions for each of COUNT more jars.
per_jar() {
  (cd "$work/refused.app/Contents/lib" && seq -f 'library-%.0f.jar' "$1" | xargs touch)
  echo $((($(instructions "$refused") - own) / $1))
}

# A bundle whose runtime library refuses at once.
mkdir -p "$work/refusing/lib"
ln -s "$build/bench/librefusing_jvm.so" "$work/refusing/lib/libjli.dylib"
make trial refused --runtime-image "$work/refusing" "$sample"
bare=("$build/bench/floor" "$work/refusing/lib/libjli.dylib")
refused=$(launcher refused)
own=$(instructions "$refused")

section "The launcher's own work: the runtime library refuses at once"
measure $((rounds * 10)) 53 bare "${bare[@]}" -- launcher "$refused"
echo
bare_instructions=$(instructions "${bare[@]}")
echo "bare: $bare_instructions instructions, $(system_calls "${bare[@]}") system calls"
echo "launcher: $own instructions, $(system_calls "$refused") system calls"
few=$(per_argument 200) many=$(per_argument 20000)
echo "an argument: $few instructions with 200, $many with 20,000"
few=$(per_jar 100) many=$(per_jar 100000)
echo "a jar: $few instructions with 100, $many with 100,000"

make trial jdk --runtime-image "$JAVA_HOME" "$sample"
# The options that the launcher passes to the JVM, from the log of a launch. The log lists them one per
# line after a tab, up to a line with a tab alone; the hooks in the list do not begin with "-".
rm "$work/logs/kestrel-native.log"
"$(launcher jdk)" hello >/dev/null 2>&1
mapfile -t options < <(awk '
  / startJVM JVM Args: *$/ { in_list = 1; next }
  in_list && /^\t$/ { exit }
  in_list && /^\t-/ { print substr($0, 2) }' "$work/logs/kestrel-native.log")
entry=$("$JAVA_HOME/bin/jar" --list --file "$sample" | sed -n 's/\.class$//p')

section "A complete launch with a JVM"
measure "$rounds" 0 \
  floor "$build/bench/floor" "$JAVA_HOME/lib/server/libjvm.so" "${options[@]}" "$entry" hello \
  -- launcher "$(launcher jdk)" hello \
  -- java "$JAVA_HOME/bin/java" "${options[@]}" "$entry" hello

make bundle plain --no-archive "$sample"
make bundle prepared "$sample" -- hello

section "The launcher with each kind of runtime"
measure "$rounds" 0 "plain jlink" "$(launcher plain)" hello \
  -- "full JDK" "$(launcher jdk)" hello \
  -- prepared "$(launcher prepared)" hello

# An application with an ordinary main.
"$JAVA_HOME/bin/javac" -d "$work/classes" "$here/Hello.java"
mkdir "$work/input"
hello=$work/input/hello.jar
"$JAVA_HOME/bin/jar" --create --file "$hello" -C "$work/classes" .
make bundle hello --main-class Hello "$hello" -- world
make bundle linked --main-class Hello --no-archive --keep-java "$hello"
"$JAVA_HOME/bin/jpackage" --type app-image --dest "$work" --name packaged --input "$work/input" \
  --main-jar hello.jar --main-class Hello >&2

section "One application, as each tool makes it"
measure "$rounds" 0 "jlink and java -cp" \
  "$work/linked.app/Contents/jre/Contents/Home/bin/java" -cp "$hello" Hello world \
  -- jpackage "$work/packaged/bin/packaged" world \
  -- "JDK and java -cp" "$JAVA_HOME/bin/java" -cp "$hello" Hello world \
  -- "./dev bundle" "$(launcher hello)" world
rm -rf "$work"
