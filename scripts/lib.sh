# Sourced by the scripts beside it: where the project is, what it needs, how to say what happens.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
logs=$root/build/logs

# Debian packages: to build everything, and to check it as well.
build_packages=(cmake g++ libbenchmark-dev libgmock-dev libgtest-dev libzmq3-dev
  ninja-build pkg-config)
check_packages=("${build_packages[@]}" binutils clang clang-format dpkg-dev
  make meson python3-zmq valgrind)
packaging_packages=("${build_packages[@]}" abigail-tools dpkg-dev lintian)
# What scripts/bench --peers compares with.
peer_packages=(cyclonedds-dev cyclonedds-tools libhiredis-dev libmosquitto-dev libnats-dev
  libnng-dev mosquitto nats-server redis-server
  capnproto libcapnp-dev libgrpc++-dev libprotobuf-dev libzeroc-ice-dev protobuf-compiler
  protobuf-compiler-grpc zeroc-ice-compilers)
analysis_packages=("${check_packages[@]}" clang-tidy clang-tools-14 cppcheck)

say() { printf '%s\n' "$*"; }

die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# as_root COMMAND...: apt-get is the only one that needs it.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    die "need root or sudo for: $*"
  fi
}

installed() {
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

update_package_lists() {
  logged install_update as_root env DEBIAN_FRONTEND=noninteractive apt-get -q update
}

# missing_packages NAME...: those that are not installed, a line each.
missing_packages() {
  local name
  command -v dpkg-query >/dev/null || return 0 # not Debian: trust that the tools are there
  for name in "$@"; do
    installed "$name" || say "$name"
  done
}

get_packages() {
  say "installing: $*"
  logged install as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -q install -y --no-install-recommends "$@"
}

# install_packages NAME...: those that are missing; says nothing and asks nothing when none is.
install_packages() {
  local missing
  mapfile -t missing < <(missing_packages "$@")
  [ ${#missing[@]} -eq 0 ] && return 0
  update_package_lists
  get_packages "${missing[@]}"
}

# install_peers: those of peer_packages that are missing and that the system has.
install_peers() {
  local name missing known=()
  mapfile -t missing < <(missing_packages "${peer_packages[@]}")
  [ ${#missing[@]} -eq 0 ] && return 0
  update_package_lists # without them nothing is known
  for name in "${missing[@]}"; do
    if apt-cache show "$name" >/dev/null 2>&1; then known+=("$name"); fi
  done
  [ ${#known[@]} -gt 0 ] && get_packages "${known[@]}"
  [ ${#known[@]} -gt 0 ] || [ ${#missing[@]} -lt ${#peer_packages[@]} ] ||
    die "no package of another product is known to apt"
}

# logged NAME COMMAND...: keeps the output in build/logs; shows its end only when COMMAND fails.
logged() {
  local name=$1 status=0
  shift
  mkdir -p "$logs"
  # Not in a condition: within one, bash would let a function go on after an error.
  set +e
  (
    set -e
    "$@"
  ) >"$logs/$name.log" 2>&1
  status=$?
  set -e
  [ "$status" -eq 0 ] && return 0
  # Without the lines of what went well.
  grep -vE '^\[[0-9]+/[0-9]+\] |^ *Start +[0-9]+: |Test +#[0-9]+: .* Passed ' "$logs/$name.log" |
    tail -n 80 >&2
  say "FAILED: $name (all of it: build/logs/$name.log)" >&2
  return "$status"
}

# How many compilers at a time.
jobs() {
  printf '%s' "${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}"
}

# fixed_addresses COMMAND...: the sanitizers of Debian 12 cannot place their shadow memory where the
# kernel randomizes addresses by more than 28 bits.
fixed_addresses() {
  local bits=0
  if [ -r /proc/sys/vm/mmap_rnd_bits ]; then bits=$(cat /proc/sys/vm/mmap_rnd_bits); fi
  if [ "$bits" -gt 28 ] && setarch -R true 2>/dev/null; then
    setarch -R "$@"
  else
    "$@"
  fi
}

# build_preset NAME [CONFIGURE_OPTION...]
build_preset() {
  local preset=$1
  shift
  (
    cd "$root"
    logged "$preset-configure" cmake --preset "$preset" "$@"
    logged "$preset-build" fixed_addresses cmake --build --preset "$preset" -j "$(jobs)"
  )
}

# build_for_packages: the library in build/package as Debian builds it, with debugging information.
build_for_packages() (
  cd "$root"
  export DEB_BUILD_MAINT_OPTIONS=hardening=+all
  logged package-configure cmake -S . -B build/package -G Ninja -DCMAKE_BUILD_TYPE=None \
    -DCMAKE_CXX_COMPILER=g++ -DCMAKE_INSTALL_PREFIX=/usr -DTESSEL_PACKAGES=ON -DTESSEL_TESTS=OFF \
    -DTESSEL_EXAMPLES=OFF -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CPPFLAGS) \
$(dpkg-buildflags --get CXXFLAGS)" -DCMAKE_SHARED_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)"
  logged package-build cmake --build build/package -j "$(jobs)"
)
