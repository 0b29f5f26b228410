#!/usr/bin/env bash
# bench.sh BUILD-FOLDER [ROUNDS]: measures how fast launches are. Needs JAVA_HOME. The first table has ten
# times the rounds.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$(cd "$1" && pwd)
rounds=${2:-40}
work=$build/bench/work
sample=$build/sample/sample.jar
unset KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE NORVALED_DEBUG_PORT NORVALED_JVM_ARGS
export KESTREL_NATIVE_LOG_DIR_OVERRIDE=$work/logs
rm -rf "$work"

section() { printf '\n## %s\n\n' "$1"; }
measure() { "$build/bench/measure" "$@"; }
launcher() { echo "$work/$1.app/Contents/MacOS/kestrel"; }

# bundle_without_runtime NAME: sets `home` to where the bundle's runtime belongs.
bundle_without_runtime() {
  local contents=$work/$1.app/Contents
  home=$contents/jre/Contents/Home
  mkdir -p "$contents/MacOS" "$contents/lib" "${home%/*}"
  cp "$build/kestrel" "$contents/MacOS"
  cp -p "$sample" "$contents/lib"
}

# bundle_with_jlink NAME JLINK-OPTION...: makes a bundle with a plain jlink runtime.
bundle_with_jlink() {
  bundle_without_runtime "$1"
  "$JAVA_HOME/bin/jlink" --add-modules java.base,java.desktop,jdk.jdwp.agent --strip-debug \
    --no-header-files --no-man-pages --output "$home" "${@:2}" >/dev/null
  ln -s server/libjvm.so "$home/lib/libjli.dylib"
}

# prepared_bundle NAME JAR... [-- ARG...]: makes a bundle as ./dev bundle does.
prepared_bundle() {
  "$JAVA_HOME/bin/java" "$here/../tools/Bundle.java" bundle "$work/$1.app" "$build/kestrel" \
    "${@:2}" >&2
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
bundle_without_runtime refused
mkdir -p "$home/lib"
ln -s "$build/bench/librefusing_jvm.so" "$home/lib/libjli.dylib"
bare=("$build/bench/bare" "$home/lib/libjli.dylib")
refused=$(launcher refused)
own=$(instructions "$refused")

section "The launcher's own work: the runtime library refuses at once"
measure $((rounds * 10)) 53 bare "${bare[@]}" -- launcher "$refused"
echo
echo "bare: $(instructions "${bare[@]}") instructions, $(system_calls "${bare[@]}") system calls"
echo "launcher: $own instructions, $(system_calls "$refused") system calls"
echo "an argument: $(per_argument 200) instructions with 200, $(per_argument 20000) with 20,000"
echo "a jar: $(per_jar 100) instructions with 100, $(per_jar 100000) with 100,000"

bundle_without_runtime jdk
ln -s "$build/jre/Contents/Home" "$home"
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
  floor "$build/bench/floor" "$home/lib/libjli.dylib" "${options[@]}" "$entry" hello \
  -- launcher "$(launcher jdk)" hello \
  -- java "$JAVA_HOME/bin/java" "${options[@]}" "$entry" hello

bundle_with_jlink plain
bundle_with_jlink archive --generate-cds-archive
prepared_bundle prepared "$sample" -- hello

section "A launch with each kind of runtime"
measure "$rounds" 0 "plain jlink" "$(launcher plain)" hello \
  -- "jlink with its archive" "$(launcher archive)" hello \
  -- "full JDK" "$(launcher jdk)" hello \
  -- prepared "$(launcher prepared)" hello

# SwingSet2 comes with Debian's packages of a JDK's demos. It needs a display.
demo=(/usr/lib/jvm/*/demo/jfc/SwingSet2/SwingSet2.jar)
if [[ -f ${demo[0]} && -n ${DISPLAY:-} ]]; then
  "$JAVA_HOME/bin/javac" -d "$work/classes" "$here/NativeLauncher.java"
  "$JAVA_HOME/bin/jar" --create --file "$work/start.jar" -C "$work/classes" .
  prepared_bundle swing "$work/start.jar" "${demo[0]}"
  section "SwingSet2 to its window"
  measure $((rounds / 4 + 1)) 0 prepared "$(launcher swing)" \
    -- "without its archive" /usr/bin/env NORVALED_JVM_ARGS=-Xshare:off "$(launcher swing)"
fi
rm -rf "$work"
