# shellcheck shell=bash
# Finds a JDK and installs what a command of ./dev needs; ./dev sources this file.

# jdk_version HOME: the version of a JDK that can build this project (17 or later), or nothing.
jdk_version() {
  if [[ -x $1/bin/javac && -f $1/include/jni.h && -f $1/release ]]; then
    sed -nE 's/^JAVA_VERSION="(1[7-9]|[2-9][0-9]).*/\1/p' "$1/release"
  fi
}

# Prints the home of the newest JDK in the usual places, or nothing.
newest_jdk() {
  local home version rank best=0 newest=
  for home in /usr/lib/jvm/* \
    /Library/Java/JavaVirtualMachines/*/Contents/Home \
    "${HOME:-}"/Library/Java/JavaVirtualMachines/*/Contents/Home \
    /opt/homebrew/opt/openjdk*/libexec/openjdk.jdk/Contents/Home \
    /usr/local/opt/openjdk*/libexec/openjdk.jdk/Contents/Home; do
    version=$(jdk_version "$home")
    if [[ -z $version ]]; then continue; fi
    # An early-access build has a word after its version. It ranks below every release.
    if grep -qE '^JAVA_RUNTIME_VERSION="[0-9.]+-' "$home/release"; then
      rank=$version
    else
      rank=$((version + 1000))
    fi
    if ((rank > best)); then
      best=$rank
      newest=$home
    fi
  done
  echo "$newest"
}

# is_there THING: whether a command, `jdk` or `googletest` is installed.
is_there() {
  case $1 in
    jdk) [[ -n ${JAVA_HOME:-$(newest_jdk)} ]] ;; # require_jdk checks a JAVA_HOME that is set
    googletest)
      [[ -e /usr/include/gmock/gmock.h || -e /usr/local/include/gmock/gmock.h ||
        -e /opt/homebrew/include/gmock/gmock.h ]]
      ;;
    *) command -v "$1" >/dev/null ;;
  esac
}

# require THING DEBIAN-PACKAGE HOMEBREW-FORMULA ...: installs missing THINGs. "-" in place of a
# package means that the thing is not needed on that system.
require() {
  local package missing=()
  while (($#)); do
    if on_mac; then package=$3; else package=$2; fi
    if [[ $package != - ]] && ! is_there "$1"; then
      missing+=("$package")
    fi
    shift 3
  done
  if ((${#missing[@]} == 0)); then return; fi
  if on_mac; then
    install_with_homebrew "${missing[@]}"
  else
    install_with_apt "${missing[@]}"
  fi
}

install_with_homebrew() {
  local package
  if ! command -v brew >/dev/null; then
    for package in "$@"; do
      say "$package is missing, and there is no Homebrew to install it (see README.md)" >&2
    done
    exit 1
  fi
  say "installing $* with Homebrew"
  brew install --quiet "$@"
}

install_with_apt() {
  local output sudo=''
  if ((EUID != 0)); then
    command -v sudo >/dev/null || fail "run as root: apt-get install $*"
    sudo=sudo
  fi
  say "installing $* with ${sudo:+sudo }apt-get"
  if ! output=$(run_apt "$sudo" "$@" 2>&1); then
    # The first failed download says more than apt's last lines.
    fail "$(grep -o -m 1 'Failed to fetch.*' <<<"$output" || tail -n 5 <<<"$output")"
  fi
}

# run_apt SUDO PACKAGE...: SUDO is empty or `sudo`.
run_apt() {
  $1 apt-get update -qq &&
    $1 env DEBIAN_FRONTEND=noninteractive LC_ALL=C \
      apt-get install -y -qq --no-install-recommends "${@:2}"
}

# Makes sure that there is a JDK. Sets java_version and, unless the caller has set it, JAVA_HOME.
require_jdk() {
  require jdk default-jdk-headless openjdk
  export JAVA_HOME=${JAVA_HOME:-$(newest_jdk)}
  if [[ -z $JAVA_HOME ]]; then
    fail "the installed JDK is older than 17; set JAVA_HOME to a later one"
  fi
  java_version=$(jdk_version "$JAVA_HOME")
  if [[ -z $java_version ]]; then
    fail "JAVA_HOME=$JAVA_HOME, which your environment sets, is not a JDK of version 17 or later"
  fi
}
