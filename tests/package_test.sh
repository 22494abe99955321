#!/usr/bin/env bash
# Installs the library, shared and static, into an empty prefix, moves that elsewhere, and has users'
# programs find it there: by CMake and by pkg-config, with g++ and with clang++, also without
# exceptions and type information. They run against the local service.
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

# Compares what there is with a list in the tree.
compare() {
  diff -u "$source/tests/package/$1" - || fail "$1 says something else"
}

compilers=(g++)
if command -v clang++ >/dev/null; then
  compilers+=(clang++)
else
  echo "package_test: there is no clang++; g++ alone is tried"
fi

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
      -DCMAKE_PREFIX_PATH="$prefix" -DSOURCE="$source/examples/quickstart.cpp"
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

nm --dynamic --demangle --defined-only "$scratch/shared/lib/libQuorvaSDK.so" |
  sed -E 's/^[0-9a-f]+ [A-Za-z] //' | grep -i quorva | sort -u | compare exported.txt
