#!/usr/bin/env bash
# Measures the launcher against less and more; ./dev bench calls it with JAVA_HOME set and all built.
#
#   bench.sh BUILD-FOLDER [ROUNDS]
set -euo pipefail
tools=$(cd "$(dirname "${BASH_SOURCE[0]}")/../tools" && pwd)
source "$tools/layout.sh"
build=$(cd "$1" && pwd)
rounds=${2:-40}
work=$build/bench/work
contents=$work/Kestrel.app/Contents
launcher=$contents/MacOS/kestrel
runtime=$contents/jre/Contents/Home/lib
entry=com.norvale.app.daemon.entry.NativeLauncher
unset KESTREL_NATIVE_EXECUTABLE_DIR_OVERRIDE NORVALED_DEBUG_PORT NORVALED_JVM_ARGS
export KESTREL_NATIVE_LOG_DIR_OVERRIDE=$work/logs

rm -rf "$work"
mkdir -p "$runtime"
lay_out "$contents" "$build/kestrel" "$build/sample/sample.jar"

load_library() { ln -sf "$1" "$runtime/libjli.dylib"; }

# Without a JVM ------------------------------------------------------------------------------------

# Copies of 2 KiB and more are one instruction a byte under callgrind where the C library makes them
# with "rep movsb", and one in 32 where it does not; with the tunable they all count alike.
instructions() {
  GLIBC_TUNABLES=glibc.cpu.x86_rep_movsb_threshold=1000000000 valgrind --tool=callgrind \
    --callgrind-out-file=/dev/null "$@" >"$work/callgrind" 2>&1 || true
  sed -n 's/.*Collected : //p' "$work/callgrind"
}

system_calls() {
  strace -f -c -o "$work/calls" "$@" >/dev/null 2>&1 || true
  awk '$NF == "total" { print $4 }' "$work/calls"
}

# growth NAME COUNT...: a table of instructions; grow_NAME COUNT must set the array `arguments`.
growth() {
  local name=$1 count last='' last_count='' base='' extra arguments=()
  shift
  echo "| $name | instructions | per one | exponent |"
  echo "|---|---|---|---|"
  for count; do
    "grow_$name" "$count"
    rm -f "$work"/logs/*
    extra=$(instructions "$launcher" "${arguments[@]}")
    if [[ -z $base ]]; then
      base=$extra
      echo "| $count | $base | | |"
      continue
    fi
    awk -v n="$count" -v all="$extra" -v base="$base" -v last="$last" -v m="$last_count" 'BEGIN {
      exponent = last ? sprintf("%.3f", log((all - base) / last) / log(n / m)) : ""
      printf "| %d | %d | %.0f | %s |\n", n, all, (all - base) / n, exponent }'
    last=$((extra - base)) last_count=$count
  done
}

grow_jars() {
  local i
  for ((i = $(find "$contents/lib" -name 'library-*' | wc -l); i < $1; i++)); do
    : >"$contents/lib/library-$i.jar"
  done
}
grow_arguments() {
  arguments=()
  if (($1)); then mapfile -t arguments < <(seq -f 'argument-%g' "$1"); fi
}

load_library "$build/bench/librefusing_jvm.so"
echo "## The launcher's own share: the runtime library refuses at once"
echo
"$build/bench/measure" $((rounds * 10)) 53 bare "$build/bench/bare" "$runtime/libjli.dylib" \
  -- launcher "$launcher"
echo
echo "| program | instructions | system calls |"
echo "|---|---|---|"
echo "| bare | $(instructions "$build/bench/bare" "$runtime/libjli.dylib") |" \
  "$(system_calls "$build/bench/bare" "$runtime/libjli.dylib") |"
echo "| launcher | $(instructions "$launcher") | $(system_calls "$launcher") |"
echo
growth jars 0 100 1000 10000 100000
find "$contents/lib" -name 'library-*' -delete
echo
growth arguments 0 200 2000 20000

# With a JVM ---------------------------------------------------------------------------------------

load_library "$JAVA_HOME/lib/server/libjvm.so"
rm -f "$work"/logs/*
"$launcher" hello >/dev/null 2>&1
jvm_args "$work/logs/kestrel-native.log" >"$work/options"
mapfile -t options <"$work/options"
package=()
for option in "${options[@]}"; do # in quotes, since jpackage splits at blanks
  [[ $option == -Djava.class.path=* ]] || package+=(--java-options "'$option'")
done
"$JAVA_HOME/bin/jpackage" --type app-image --dest "$work" --name packaged --input "$contents/lib" \
  --main-jar sample.jar --main-class "$entry" --runtime-image "$JAVA_HOME" "${package[@]}"

echo
echo "## A whole start with a JVM"
echo
"$build/bench/measure" "$rounds" 0 floor "$build/bench/floor" "$runtime/libjli.dylib" \
  "$work/options" hello \
  -- launcher "$launcher" hello \
  -- java "$JAVA_HOME/bin/java" "${options[@]}" "$entry" hello \
  -- jpackage "$work/packaged/bin/packaged" hello

# The runtimes -------------------------------------------------------------------------------------

# bundle_with NAME JLINK-OPTION...: a bundle with what jlink alone makes.
bundle_with() {
  local contents=$work/$1/Kestrel.app/Contents
  lay_out "$contents" "$build/kestrel" "$build/sample/sample.jar"
  mkdir "$contents/jre" "$contents/jre/Contents"
  "$JAVA_HOME/bin/jlink" --add-modules java.base,java.desktop,jdk.jdwp.agent --strip-debug \
    --no-header-files --no-man-pages --output "$contents/jre/Contents/Home" "${@:2}" >/dev/null
  ln -s server/libjvm.so "$contents/jre/Contents/Home/lib/libjli.dylib"
}

bundle_with jlink
bundle_with archive --generate-cds-archive
"$tools/bundle" "$work/prepared/Kestrel.app" "$build/kestrel" "$build/sample/sample.jar" -- hello \
  >"$work/bundled" 2>&1 || fail "$(cat "$work/bundled")"
"$JAVA_HOME/bin/jpackage" --type app-image --dest "$work" --name image --input "$contents/lib" \
  --main-jar sample.jar --main-class "$entry" "${package[@]}"

echo
echo "## A start with one runtime or another"
echo
start() { echo "$work/$1/Kestrel.app/Contents/MacOS/kestrel"; }
"$build/bench/measure" "$rounds" 0 "plain jlink" "$(start jlink)" hello \
  -- "jlink with its archive" "$(start archive)" hello \
  -- "full JDK" "$launcher" hello \
  -- "prepared" "$(start prepared)" hello \
  -- "jpackage's image" "$work/image/bin/image" hello |
  awk -F '|' 'NR == 1 { print $0 " exit ratio |" } NR == 2 { print $0 "---|" }
    NR > 2 { if (!plain) plain = $4; printf "%s %.2f |\n", $0, $4 / plain }'
rm -rf "$work"
