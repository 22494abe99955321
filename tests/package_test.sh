#!/usr/bin/env bash
# Installs the library, shared and static, into an empty prefix, moves that elsewhere, and has users'
# programs find it there: by CMake and by pkg-config, with g++ and with clang++, also without
# exceptions and type information. Others have it in their own tree. They run against the local
# service. What is installed, and the shared library's interface, are compared with what was accepted
# last; with QUORVA_ACCEPT set, what is there now is accepted.
#
#     package_test.sh SOURCE SERVICE
set -euo pipefail

source=$1 service=$2
scratch=$(mktemp -d)
pid=
trap '[[ -z $pid ]] || kill "$pid"; rm -rf "$scratch"' EXIT

fail() {
  echo "package_test: $*" >&2
  exit 1
}

quietly() {
  "$@" >"$scratch/log" 2>&1 || {
    cat "$scratch/log" >&2
    fail "$*"
  }
}

accepted=$source/tests/package

differs() {
  [[ -n ${QUORVA_ACCEPT-} ]] || fail "$1 (if that is meant: QUORVA_ACCEPT=1 ctest --test-dir build/ci -R Package)"
}

accept() {
  [[ -z ${QUORVA_ACCEPT-} ]] || cp "$scratch/$1" "$accepted/$1"
}

# Compares what there is with a list in the tree.
compare() {
  cat >"$scratch/$1"
  diff -u "$accepted/$1" "$scratch/$1" || differs "$1 says something else"
  accept "$1"
}

# Compares the interface that a library shows with its dump in the tree; what is only new is compatible.
# Both are dumps, since abidiff overlooks changes between a dump and a library.
compare_interface() {
  local dump=$1 library=$2
  abidw --headers-dir "$scratch/shared/include" --drop-private-types --exported-interfaces-only --no-show-locs \
    --no-corpus-path --no-comp-dir-path --no-elf-needed --no-parameter-names --type-id-style hash \
    --out-file "$scratch/$dump" "$library"
  gzip -dc "$accepted/$dump.gz" >"$scratch/accepted.abi"
  abidiff --suppressions "$accepted/abidiff.ini" --no-added-syms "$scratch/accepted.abi" "$scratch/$dump" ||
    differs "the interface isn't compatible with the accepted one"
  gzip -9nk "$scratch/$dump"
  accept "$dump.gz"
}

compilers=(g++)
if command -v clang++ >/dev/null; then
  compilers+=(clang++)
else
  echo "package_test: there is no clang++; g++ alone is tried"
fi

# Debug information is for the interface's comparison. Without folders' names in it, each source is
# compiled once for all four builds.
export CXXFLAGS="-g '-ffile-prefix-map=$source=.'" CCACHE_NOHASHDIR=1

mkfifo "$scratch/ready"

# Runs a program as a new installation, against a service that knows nothing yet.
run_user() {
  local program=$1 ready
  shift
  rm -rf "$scratch/data" "$scratch/state"
  "$service" --state "$scratch/state" --print-ready >"$scratch/ready" 2>"$scratch/requests" &
  pid=$!
  read -r ready <"$scratch/ready"
  [[ $ready =~ https://127\.0\.0\.1:([0-9]+) ]] || fail "the local service didn't start: $ready"
  XDG_DATA_HOME=$scratch/data quietly timeout 60 "$program" "${@//PORT/${BASH_REMATCH[1]}}"
  kill "$pid"
  wait "$pid" || fail "the local service ended with status $?"
  pid=
}

for kind in shared static; do
  build=$scratch/build-$kind prefix=$scratch/$kind
  quietly cmake -S "$source" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUORVA_BUILD_DEVELOPMENT=OFF \
    -DBUILD_SHARED_LIBS="$([[ $kind == shared ]] && echo ON || echo OFF)" -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
    -DCMAKE_INSTALL_PREFIX="$scratch/elsewhere"
  quietly cmake --build "$build"
  quietly cmake --install "$build"
  mv "$scratch/elsewhere" "$prefix"
  (cd "$prefix" && find . -type f -o -type l) | sed 's|^\./||' | sort | compare "installed-$kind.txt"

  export PKG_CONFIG_PATH=$prefix/lib/pkgconfig LD_LIBRARY_PATH=$prefix/lib
  for compiler in "${compilers[@]}"; do
    user=$scratch/$kind-$compiler
    quietly cmake -S "$source/tests/package" -B "$user" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
      -DWAY=find_package -DCMAKE_PREFIX_PATH="$prefix" -DPROGRAM="$source/examples/quickstart.cpp"
    quietly cmake --build "$user"
    run_user "$user/user" --port PORT --ca "$scratch/state/ca.pem"

    read -ra flags <<<"$(pkg-config --cflags --libs quorva-sdk)"
    quietly "$compiler" -std=c++20 -fno-exceptions -fno-rtti "$source/examples/plainhost.cpp" -o "$user/plain" "${flags[@]}"
    run_user "$user/plain" PORT "$scratch/state/ca.pem"

    # Whoever links the shared library needs nothing else of it, and with the static one it's all there.
    linked=$(ldd "$user/user" "$user/plain" | grep -c libQuorvaSDK.so.1 || :)
    [[ $kind:$linked == shared:2 || $kind:$linked == static:0 ]] || fail "$kind, $compiler: libQuorvaSDK.so.1 is linked $linked times"
  done
done

# A new version has its number in more places than one.
version=$(pkg-config --modversion quorva-sdk)
while IFS=: read -r file line; do
  grep -qF "$line" "$source/$file" || fail "$file doesn't say $line"
done <<END
CHANGELOG.md:## $version
packaging/changelog:quorvasdk ($version)
QuorvaSDK/UIDevice+Extensions.h:sdkVersion = "$version"
END

# A user's own tree with the library in it installs what is the user's, and builds the library alone.
build_in_tree() {
  local tree=$1 build=$2
  shift 2
  quietly cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "$@"
  quietly cmake --build "$build"
  quietly cmake --install "$build" --prefix "$build/prefix"
  [[ -z $(cd "$build" && find . -path './prefix/*' -type f ! -name user -o -name '*_test' -o -name quorva-localservice) ]] ||
    fail "$build has more in it than the library"
}

fetched=$scratch/fetched
build_in_tree "$source/tests/package" "$fetched" -DWAY=FetchContent -DQUORVA="$source" \
  -DPROGRAM="$source/examples/quickstart.cpp"
run_user "$fetched/user" --port PORT --ca "$scratch/state/ca.pem"

# As the guide for newcomers has it.
listing() { sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/p" "$source/docs/getting-started.md" | sed '1d;$d'; }
mkdir "$scratch/guide"
listing cmake | sed "s|/path/to/QuorvaSDK|\"$source\"|" >"$scratch/guide/CMakeLists.txt"
listing cpp >"$scratch/guide/main.cpp"
build_in_tree "$scratch/guide" "$scratch/guide/build"
run_user "$scratch/guide/build/shop" PORT "$scratch/state/ca.pem"
grep -qxE 'https://go\.shop\.example/[a-z0-9]{8}' "$scratch/log" || fail "the guide's program said $(<"$scratch/log")"

# The dumps are amd64's.
if [[ $(uname -m) == x86_64 ]] && command -v abidiff >/dev/null; then
  compare_interface interface.abi "$scratch/shared/lib/libQuorvaSDK.so"
  quietly g++ -std=c++20 -g "-ffile-prefix-map=$scratch/shared=." "-ffile-prefix-map=$source=." -shared -fPIC \
    -fvisibility=hidden -fvisibility-inlines-hidden "-Wl,--version-script=$source/QuorvaSDK/exports.map" \
    "-I$scratch/shared/include" "$accepted/looked_into.cpp" -o "$scratch/looked_into.so"
  compare_interface looked_into.abi "$scratch/looked_into.so"
else
  echo "package_test: there is no abidiff, or no amd64; the interface isn't compared"
fi
nm --dynamic --demangle --defined-only "$scratch/shared/lib/libQuorvaSDK.so" |
  sed -E 's/^[0-9a-f]+ [A-Za-z] //' | sort -u | compare exported.txt
