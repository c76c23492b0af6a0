# Sourced by the benchmark scripts, from the repository's root.

# A Release build of the library, the tool and the benchmarks in
# build-bench, installed under $work/dist.
build_and_install() {
  echo "Building (Release) ..."
  cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DTROVALIS_BUILD_TESTS=OFF \
    -DTROVALIS_BUILD_BENCHMARKS=ON >/dev/null
  cmake --build build-bench >/dev/null
  cmake --install build-bench --prefix "$work/dist" >/dev/null
}

# A scratch directory ($work), a region instance of this run's own
# (NAME and the process id) whose objects ($region, $lock, $holder) are
# removed on exit with the directory, and a per-user folder in $work.
private_instance() {
  work=$(mktemp -d)
  export TROVALIS_INSTANCE=$1$$
  export APPDATA=$work/user
  local uid
  uid=$(id -u)
  region=/dev/shm/zelvan-tds-mem-$uid-$TROVALIS_INSTANCE
  lock=/dev/shm/sem.zelvan-tds-cache-$uid-$TROVALIS_INSTANCE
  holder=/dev/shm/zelvan-tds-cache-$uid-$TROVALIS_INSTANCE.holder
  trap 'rm -rf "$work"; rm -f "$region" "$lock" "$holder"' EXIT
}
