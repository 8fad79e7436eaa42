# shellcheck shell=bash disable=SC2034,SC2015
# What run, check and .ci/run share: installing what is missing, and stages of one line each.  Sourced from the top folder.

export LC_ALL=C.UTF-8
logs=build/logs
mkdir -p "$logs"
if command -v ccache >/dev/null; then
  export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
fi

# The Debian packages of a purpose whose command or file is not there.  One row each: package, what shows that it is there.
missing_packages() {
  local package probe
  while read -r package probe; do
    [ -n "$package" ] || continue
    case $probe in
      */*) compgen -G "$probe" >/dev/null || echo "$package" ;;
      *) command -v "$probe" >/dev/null || echo "$package" ;;
    esac
  done
}

packages_to_build='
  cmake        cmake
  ninja-build  ninja
  gcc          cc
  g++          c++
  pkg-config   pkg-config
  zlib1g-dev   /usr/include/zlib.h
'
packages_to_test='
  libgtest-dev /usr/include/gtest/gtest.h
  binutils     nm
  openssl      openssl
  python3      python3
  curl         curl
  libwrap0     /usr/lib/*/libwrap.so.0
'
# Unpacked into build/unpacked, not installed: these packages exclude each other, and would start servers of the system.
packages_to_unpack='vsftpd pure-ftpd'

packages_to_fuzz='
  clang              clang++
  libclang-rt-14-dev /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a
'

packages_for_windows='
  g++-mingw-w64-x86-64-posix x86_64-w64-mingw32-g++-posix
  g++-mingw-w64-i686-posix   i686-w64-mingw32-g++-posix
  libz-mingw-w64-dev         /usr/x86_64-w64-mingw32/lib/libz.a
  googletest                 /usr/src/googletest/CMakeLists.txt
  wine64                     /usr/lib/wine/wine64
  wine                       wine
'

# get ROWS...: installs what is missing when that is possible, else leaves in $why_not what is missing and what to do.
get() {
  local missing as_root=()
  missing=$(printf '%s\n' "$@" | missing_packages | sort -u | tr '\n' ' ')
  missing=${missing% }
  [ -n "$missing" ] || return 0
  local how="apt-get install -y --no-install-recommends $missing"
  if ! command -v apt-get >/dev/null; then
    why_not="missing: $missing (names of Debian packages; install their like with this system's package manager)"
    return 1
  fi
  if [ "$(id -u)" != 0 ]; then
    if ! sudo -n true 2>/dev/null; then why_not="missing: $missing; get it with: sudo $how"; return 1; fi
    as_root=(sudo -n)
  fi
  export DEBIAN_FRONTEND=noninteractive
  "${as_root[@]}" apt-get update >"$logs/install.log" 2>&1 || true
  # shellcheck disable=SC2086
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive $how >>"$logs/install.log" 2>&1 && return 0
  why_not="could not install: $missing ($logs/install.log)"
  return 1
}

# need ROWS...: the same, but nothing goes on without them.
need() {
  get "$@" && return 0
  echo "$why_not" >&2
  exit 1
}

# Unpacks what tests run as programs of their own.  Those tests are skipped where that is not possible.
unpack() {
  local package here=$PWD/build/unpacked
  command -v apt-get >/dev/null || return 0
  mkdir -p "$here"
  for package in $packages_to_unpack; do
    [ -e "$here/usr/share/doc/$package" ] && continue
    (cd "$here" && apt-get download "$package" && dpkg -x "$package"_*.deb . && rm "$package"_*.deb) >>"$logs/install.log" 2>&1
  done
  return 0
}

stage_number=0
stage_count=0
passed=0
failed=0

# stage NAME LABEL COMMAND...: runs the command into build/logs/NAME.log and prints one line.  On failure it counts one
# failure, shows what matters of the log and returns 1.
stage() {
  local name=$1 label=$2 begun=$SECONDS log=$logs/$1.log
  shift 2
  stage_number=$((stage_number + 1))
  printf '[%d/%d] %s ... ' "$stage_number" "$stage_count" "$label"
  if "$@" >"$log" 2>&1; then
    echo "ok $((SECONDS - begun)) s"
    return 0
  fi
  echo "FAILED after $((SECONDS - begun)) s ($log)"
  failed=$((failed + 1))
  show_failure "$log"
  return 1
}

# not_run LABEL WHY: a stage that cannot be run here.
not_run() {
  stage_number=$((stage_number + 1))
  printf '[%d/%d] %s ... not run, %s\n' "$stage_number" "$stage_count" "$1" "$2"
}

# Compiler errors, or else the end of the log.
show_failure() {
  grep -qE ' error: |FAILED:|undefined reference' "$1" &&
    grep -E -A6 ' error: |FAILED:|undefined reference' "$1" | head -n 60 || tail -n 60 "$1"
}

# tests NAME LABEL CTEST-ARGUMENTS...: a stage that is a ctest run; its tests are counted one by one.
tests() {
  local label=$2 begun=$SECONDS log=$logs/$1.log run bad
  shift 2
  stage_number=$((stage_number + 1))
  printf '[%d/%d] %s ... ' "$stage_number" "$stage_count" "$label"
  ctest "$@" -j "$(nproc)" --output-on-failure >"$log" 2>&1
  run=$(sed -nE 's/.* tests failed out of ([0-9]+)$/\1/p' "$log")
  bad=$(sed -nE 's/.* ([0-9]+) tests failed out of .*/\1/p' "$log")
  if [ -z "$run" ]; then
    echo "FAILED ($log)"
    failed=$((failed + 1))
    tail -n 30 "$log"
    return 1
  fi
  passed=$((passed + run - bad))
  failed=$((failed + bad))
  if [ "$bad" = 0 ]; then
    echo "ok $((SECONDS - begun)) s, $run tests"
    return 0
  fi
  echo "FAILED after $((SECONDS - begun)) s: $bad of $run tests ($log)"
  grep -vE '^ *Start +[0-9]+: |^ *[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed ' "$log" | head -n 300
  return 1
}

build() {  # PRESET [--target TARGET...]
  local preset=$1
  shift
  cmake --preset "$preset" && cmake --build --preset "$preset" "$@"
}

verdict() {
  echo "$passed passed, $failed failed"
  [ "$failed" = 0 ] && [ "$passed" -gt 0 ]
}
